#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace storage::clients
{

/// An interface that a client implements besides CloudClient if it can fetch a whole object faster than one range after
/// the other. A caller that needs all bytes, in any order, looks for it with findInterface().
class ObjectDownloader
{
public:
    virtual ~ObjectDownloader() = default;

    /// Where the bytes go.
    struct Sink
    {
        /// Takes the size of the object, in bytes. Called once, before all of the bytes.
        std::function<void(std::uint64_t size)> begin;

        /// Takes bytes at their offset in the object. Called by several threads at a time, never for the same bytes.
        /// May be called again for bytes that it has had, if these turned out to be wrong: the last ones count.
        std::function<void(std::uint64_t offset, std::string_view bytes)> write;

        /// Whether write() must be called by one thread at a time, with the bytes in order and each of them once. Bytes
        /// that arrive early are buffered. While write() blocks, threads of the client block, too, so write() must not
        /// wait for other transfers of this client.
        bool isOrdered = false;
    };

    /// Fetch all bytes of one version of an object: the one that is there when the call begins.
    ///
    /// Blocks until the sink has all of them. It is called by this thread and by others of the client, and not after
    /// this returns or throws. Any thread may call this, but not the sink.
    ///
    /// @param sink  what its functions throw, of any type, ends the download and is thrown here
    /// @throws ResourceNotFoundException if there is no object
    /// @throws CloudException for other failures; UnknownErrorException if the object has changed meanwhile
    virtual void downloadObject(const std::string& key, const Sink& sink) = 0;
};

} // namespace storage::clients
