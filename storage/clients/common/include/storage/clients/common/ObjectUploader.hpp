#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace storage::clients
{

/// An interface that a client implements besides CloudClient if it can store a whole object faster than part after
/// part. A caller that has all bytes, such as those of a local file or a pipe, looks for it with findInterface().
class ObjectUploader
{
public:
    virtual ~ObjectUploader() = default;

    /// Where the bytes of a new object come from.
    struct Source
    {
        std::uint64_t size; ///< bytes

        /// Read bytes [offset, offset + size). Called by several threads at a time, and more than once for the same
        /// bytes: for example to hash them, and then to send them.
        std::function<void(std::uint64_t offset, char* target, std::size_t size)> read;

        /// Throw if the bytes that were read may belong to different states of the source. Called when all of them
        /// have been read, before the object becomes visible, and after a failure that this may be the reason of.
        std::function<void()> check;

        /// Count bytes that are sent for the first time. Called by several threads at a time.
        std::function<void(std::uint64_t bytes)> sent;
    };

    /// Store an object, in place of one that may be there: all of it or nothing.
    ///
    /// Blocks until it is stored. The source is called by this thread and by others of the client, and not after this
    /// returns or throws. Any thread may call this, but not the source.
    /// @param source  what its functions throw, of any type, ends the upload and is thrown here
    /// @throws as CloudClient::putObject()
    virtual void uploadObject(const std::string& key, const Source& source) = 0;

    /// Reads the next bytes, at most `size`, which is not 0. @return how many; 0: there are no more
    using ReadNext = std::function<std::size_t(char* target, std::size_t size)>;

    /// The same for bytes that come in order and whose number is not known, such as those of a pipe. They are read by
    /// this thread, while others of the client send those that were read before.
    /// @param read  what it throws, of any type, ends the upload and is thrown here
    virtual void uploadStream(const std::string& key, const ReadNext& read) = 0;
};

} // namespace storage::clients
