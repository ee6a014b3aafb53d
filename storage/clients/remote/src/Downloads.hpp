#pragma once

#include "ObjectReader.hpp"
#include "TaskPool.hpp"

#include <storage/clients/common/ObjectDownloader.hpp>

#include <cstdint>
#include <string>

namespace storage::clients
{

/// Fetches whole objects for callers that take the bytes in any order. Safe for concurrent calls.
///
/// The response to the first request tells the version. The other ranges are then fetched from this version, each as
/// soon as a thread is free, and every piece goes from the connection's buffer to the sink. So a download needs no
/// memory of the MemoryBudget. VersionPins is not involved: a download moves no pin, and evicts none.
class Downloads
{
public:
    /// @param partSize  RemoteSettings::partSize; small ones make the requests smaller, too
    Downloads(ObjectReader& reader, TaskPool& pool, std::uint64_t partSize);

    /// See RemoteClient::downloadObject().
    void fetch(const std::string& key, const ObjectDownloader::Sink& sink);

private:
    ObjectReader& m_reader;
    TaskPool& m_pool;
    const std::uint64_t m_openingSize; // bytes of the first range
    const std::uint64_t m_rangeSize;   // bytes of each other range
};

} // namespace storage::clients
