#pragma once

#include "ObjectReader.hpp"
#include "TaskPool.hpp"

#include <storage/clients/common/ObjectDownloader.hpp>
#include <storage/clients/remote/RemoteSettings.hpp>

#include <cstdint>
#include <string>

namespace storage::clients
{

/// Fetches whole objects. Safe for concurrent calls.
///
/// The response to the first request tells the version. The other ranges are then fetched from this version, each as
/// soon as a thread is free. Every piece goes from the connection's buffer to the sink. But if the sink wants the bytes
/// in order, each thread keeps its range until all before it were written: at most half of RemoteSettings::memory.
/// VersionPins is not involved: a download moves no pin, and evicts none.
class Downloads
{
public:
    /// All arguments but the settings are borrowed. Small parts make the requests smaller, too.
    Downloads(ObjectReader& reader, TaskPool& pool, const RemoteSettings& settings);

    /// See RemoteClient::downloadObject().
    void fetch(const std::string& key, const ObjectDownloader::Sink& sink);

private:
    ObjectReader& m_reader;
    TaskPool& m_pool;
    const std::uint64_t m_openingSize; // bytes of the first range
    const std::uint64_t m_rangeSize;   // bytes of each other range
    const std::uint64_t m_orderedSize; // the same where a range is kept in memory until all before it are there
};

} // namespace storage::clients
