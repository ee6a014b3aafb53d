#pragma once

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RetryPolicy.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace storage::clients
{

/// How a RemoteClient works on its store.
struct RemoteSettings
{
    /// Maximum requests that run at a time in the background: parts of uploads, completions and prefetches together; 1
    /// to 64. With 1, nothing runs in the background.
    std::size_t transfers = 8;

    /// Maximum bytes of the buffers for parts that wait to be sent and for prefetched ranges; the latter use at most
    /// half of them. Larger parts are in temporary files while they are sent. A download whose bytes must be in order
    /// takes up to half as much in addition.
    std::uint64_t memory = 64U << 20;

    std::uint64_t partSize = 256U << 10; ///< bytes of the parts that stored objects are read in; 64 KiB to 1 GiB
    RetryPolicy retry = {};
    RetryClock clock = {};

    /// Whether the process is interrupted: then nothing is retried. Must be safe to call from any thread. Null: never.
    std::function<bool()> interrupted = nullptr;

    /// The metadata of a new file. Must be safe to call from any thread. Null: none.
    std::function<ObjectMetadata(const std::string& key)> newMetadata = nullptr;
};

} // namespace storage::clients
