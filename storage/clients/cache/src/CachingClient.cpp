#include <storage/clients/cache/CachingClient.hpp>

#include "RestFetcher.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/iostreams/device/array.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <utility>

namespace storage::clients
{

namespace
{

constexpr std::uint64_t maxRange =
    16U << 20U; // bytes; several parts as a RemoteClient cuts them, unless told otherwise

/// The requested bytes of a version; nullopt: more or other ones than are kept.
std::optional<ByteRange> keptRange(std::uint64_t first, std::uint64_t last, std::uint64_t size, std::uint64_t blockSize)
{
    const bool isWhole = first == 0 && last == 0;
    if (size <= blockSize / 4 || (!isWhole && (last < first || last >= size)))
    {
        return std::nullopt;
    }
    const ByteRange range = isWhole ? ByteRange{0, size} : ByteRange{first, last - first + 1};
    return range.size == 0 || range.size > maxRange ? std::nullopt : std::optional(range);
}

} // namespace

/// Writes to memory. Every write fails once the fetch is cancelled.
class CachingClient::MemoryBuffer : public boost::iostreams::stream_buffer<boost::iostreams::array_sink>
{
public:
    MemoryBuffer(char* target, std::size_t size, const std::atomic<bool>& isCancelled)
        : stream_buffer(boost::iostreams::array_sink(target, size))
        , m_isCancelled(isCancelled)
    {
    }

protected:
    std::streamsize xsputn(const char* bytes, std::streamsize count) override
    {
        return m_isCancelled ? 0 : stream_buffer::xsputn(bytes, count);
    }

private:
    const std::atomic<bool>& m_isCancelled;
};

CachingClient::CachingClient(
    std::shared_ptr<cloudprovider::CloudClient> inner, std::shared_ptr<RangeCache> cache, std::string store)
    : InterceptingClient(std::move(inner))
    , m_cache(std::move(cache))
    , m_store(std::move(store))
    , m_versions(findInterface<PinnedVersions>(this->inner()))
    , m_rest(std::make_unique<RestFetcher>(*m_cache,
          [this](const ObjectVersion& object, const ByteRange& range, const std::atomic<bool>& isCancelled)
          {
              const auto version = m_versions->pinnedVersion(object.key);
              const auto bytes = std::make_unique_for_overwrite<char[]>(range.size);
              MemoryBuffer target(bytes.get(), range.size, isCancelled);
              const bool isThere = version && version->tag == object.tag && version->size == object.size &&
                                   fetch(object.key, *version, range, target);
              isThere ? m_cache->write(object, range, bytes.get()) : void();
              return isThere;
          }))
{
}

CachingClient::~CachingClient() = default;

void CachingClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    const auto version = m_versions != nullptr ? m_versions->pinnedVersion(key) : std::nullopt;
    const auto range =
        version && !version->tag.empty() ? keptRange(first, last, version->size, m_cache->blockSize()) : std::nullopt;
    if (!range)
    {
        InterceptingClient::getObjectRange(key, out, first, last);
        return;
    }
    const ObjectVersion object{m_store, key, version->tag, version->size};
    const ByteRange blocks = wholeBlocks(*range, version->size);
    const auto bytes = std::make_unique_for_overwrite<char[]>(blocks.size);
    char* const wanted = bytes.get() + (range->offset - blocks.offset);
    const ByteRange part = m_cache->read(object, *range, wanted);
    const auto begin = std::chrono::steady_clock::now();
    if (part.size > 0)
    {
        const ByteRange missing = wholeBlocks(part, version->size);
        char* const target = bytes.get() + (missing.offset - blocks.offset);
        const std::atomic<bool> isCancelled = false;
        MemoryBuffer memory(target, missing.size, isCancelled);
        if (!fetch(key, *version, missing, memory))
        {
            InterceptingClient::getObjectRange(key, out, first, last);
            return;
        }
        m_cache->write(object, missing, target);
        m_rest->read(object, missing, std::chrono::steady_clock::now() - begin);
    }
    else
    {
        m_rest->read(object, part, {});
    }
    writeContent(key, out, wanted, range->size);
}

/// Read bytes of a version into memory.
/// @return false: another version is to be read by now, of which some bytes may have been read
bool CachingClient::fetch(
    const std::string& key, const PinnedVersion& version, const ByteRange& range, MemoryBuffer& target)
try
{
    std::ostream memory(&target);
    InterceptingClient::getObjectRange(key, memory, range.offset, range.offset + range.size - 1);
    return m_versions->pinnedVersion(key) == version;
}
catch (const cloudprovider::CloudException&)
{
    if (m_versions->pinnedVersion(key) == version)
    {
        throw;
    }
    return false; // the other version may be too short for this range
}

/// The smallest range of whole blocks that contains a range.
ByteRange CachingClient::wholeBlocks(const ByteRange& range, std::uint64_t objectSize) const
{
    const std::uint64_t block = m_cache->blockSize();
    const std::uint64_t begin = range.offset / block * block;
    const std::uint64_t end = (range.offset + range.size + block - 1) / block * block;
    return {begin, std::min(end, objectSize) - begin};
}

} // namespace storage::clients
