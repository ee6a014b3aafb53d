#pragma once

#include <string>

namespace storage::clients
{

/// An interface that a client implements besides CloudClient if its store can copy objects without sending their bytes
/// through the client. A caller looks for it with findInterface().
class ObjectCopier
{
public:
    virtual ~ObjectCopier() = default;

    /// Store a copy of an object under another key, in place of the object that is there.
    ///
    /// The copy has the bytes and the metadata of one version: the one that is there when the call begins. At every
    /// instant, the target is what it was before, or the whole copy. Conditions of WriteConditions hold for the target.
    /// Blocks until the store has copied. Any thread may call this.
    ///
    /// @param target  differs from `source`
    /// @return ObjectInfo::tag of the version that was copied
    /// @throws UnsupportedOperationException if the store cannot copy this object; the target has not changed, and the
    ///         caller can send the bytes
    /// @throws ResourceNotFoundException if there is no source
    /// @throws CloudException for other failures; UnknownErrorException if the source has changed meanwhile. The target
    ///         is a whole object after that, too: the old one, the copy, or a copy of the version that was stored
    ///         meanwhile.
    virtual std::string copyObject(const std::string& source, const std::string& target) = 0;
};

} // namespace storage::clients
