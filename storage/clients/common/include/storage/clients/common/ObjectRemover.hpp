#pragma once

#include <exception>
#include <map>
#include <string>
#include <vector>

namespace storage::clients
{

/// An interface that a client implements besides CloudClient if its store can delete many objects with one request. A
/// caller looks for it with findInterface().
class ObjectRemover
{
public:
    virtual ~ObjectRemover() = default;

    /// Delete objects, each as deleteObject() does, in no particular order. Any thread may call this.
    ///
    /// @return the keys that the store refused to delete, each with the CloudException that says why
    /// @throws CloudException if a request fails as a whole, its retries are used up, or the process is interrupted;
    ///         any of the objects may have been deleted
    virtual std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& keys) = 0;
};

} // namespace storage::clients
