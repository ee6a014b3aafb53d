#pragma once

#include <memory>
#include <string>

namespace storage::clients
{

/// An interface that a client implements besides CloudClient if it can make writes of a key conditional on the version
/// that they replace. A caller looks for it with findInterface(). It works through all decorators and the provider,
/// because a condition belongs to the key and not to one call.
class WriteConditions
{
public:
    virtual ~WriteConditions() = default;

    /// Keeps one requirement during its lifetime. Destroy it before the client.
    class Condition
    {
    public:
        Condition() = default;
        Condition(const Condition&) = delete;
        Condition& operator=(const Condition&) = delete;
        virtual ~Condition() = default;
    };

    /// Require a version of the object under the key.
    ///
    /// While the result lives, putObject(), completeMultipartUpload() and deleteObject() of this key through this
    /// client take effect only if the object has this version at that instant. Otherwise they change nothing and throw
    /// ResourceAlreadyExistsException if no object was required, else UnknownErrorException. An upload stays open. A
    /// retry after a lost response is not refused because of what the first attempt stored.
    ///
    /// The requirement does not change when a write has taken effect: a second write of the key is refused. Several
    /// requirements of one key must all hold. Any thread may call this and destroy the result.
    /// @param tag  ObjectInfo::tag of the required version; empty: there must be no object
    [[nodiscard]] virtual std::unique_ptr<Condition> requireVersion(const std::string& key, const std::string& tag) = 0;

    /// Whether the store itself compares the version, in one step with the write. Otherwise the client looks it up just
    /// before, and a write of another client in between is replaced or deleted.
    virtual bool isAtomic() const noexcept = 0;
};

} // namespace storage::clients
