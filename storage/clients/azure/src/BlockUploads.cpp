#include "BlockUploads.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/algorithm/hex.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <fmt/format.h>

#include <random>
#include <utility>

namespace storage::clients::azure
{

using namespace cloudprovider;

namespace
{

constexpr std::size_t countSize = 4;             // bytes of the number of the part, and of the count
constexpr std::size_t minIdSize = countSize + 4; // 32 random bits tell uploads apart
constexpr std::size_t ownIdSize = countSize + 8; // no padding in base64

std::string randomId()
{
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

} // namespace

std::string BlockUpload::idPrefix() const
{
    std::string bytes = boost::algorithm::unhex(id);
    bytes.resize(idSize - countSize, '\0');
    return bytes;
}

std::string BlockUpload::nextBlockId(std::size_t number)
{
    const unsigned sent = ++sentBlocks;
    std::string bytes = idPrefix();
    for (const std::size_t byte : {number >> 8U, number, std::size_t{sent >> 8U}, std::size_t{sent}})
    {
        bytes += static_cast<char>(byte & 0xFFU);
    }
    return toBase64(bytes);
}

bool BlockUpload::owns(const Block& block) const
{
    return fromBase64(block.id).starts_with(idPrefix());
}

std::string BlockUpload::runOf(const ByteRange& range) const
{
    std::size_t first = 0;
    std::size_t last = 0;
    std::uint64_t offset = 0;
    for (const Block& block : blocks)
    {
        first += offset < range.offset ? 1 : 0;
        last += offset < range.offset + range.size ? 1 : 0;
        offset += block.size;
    }
    return fmt::format("run:{}:{}", first, last);
}

std::vector<ListedBlock> BlockUpload::listed(const std::vector<NumberedTag>& parts) const
{
    std::vector<ListedBlock> result;
    for (const auto& [number, partTag] : parts)
    {
        if (!partTag.starts_with("run:")) // base64 has no colon
        {
            result.push_back({partTag, false});
            continue;
        }
        const std::size_t colon = partTag.rfind(':');
        const std::size_t last = std::stoul(partTag.substr(colon + 1));
        for (std::size_t i = std::stoul(partTag.substr(4)); i < last; ++i)
        {
            result.push_back({blocks.at(i).id, true});
        }
    }
    return result;
}

std::string BlockUploads::open(const std::string& key, const std::string& tag, const BlockList& list,
    WrittenMetadata metadata, HttpHeaders headers)
{
    const auto upload = std::make_shared<BlockUpload>();
    upload->id = randomId();
    upload->created = boost::posix_time::microsec_clock::universal_time();
    upload->key = key;
    upload->tag = tag;
    upload->blocks = list.committed;
    upload->metadata = std::move(metadata);
    upload->headers = std::move(headers);
    const bool isBlob = !list.committed.empty();
    const auto& known = isBlob ? list.committed : list.uncommitted;
    upload->idSize = known.empty() ? ownIdSize : fromBase64(known.front().id).size();
    if (upload->idSize < minIdSize)
    {
        throw UnknownErrorException("Unusable block ids",
            fmt::format("writing {} failed: {} block ids of {} bytes, and all of a blob must have the same size, but "
                        "at least {} are needed to tell uploads apart; {}",
                quoted(key), isBlob ? "the blob has" : "an unfinished upload of another program has", upload->idSize,
                minIdSize, isBlob ? "write to another name, or delete it first" : "write to another name"));
    }
    const std::lock_guard lock(m_mutex);
    m_uploads.emplace(upload->id, upload);
    return upload->id;
}

std::shared_ptr<BlockUpload> BlockUploads::find(const std::string& key, const std::string& id) const
{
    const std::lock_guard lock(m_mutex);
    const auto upload = m_uploads.find(id);
    return upload != m_uploads.end() && upload->second->key == key ? upload->second : nullptr;
}

std::shared_ptr<BlockUpload> BlockUploads::get(const std::string& key, const std::string& id) const
{
    auto upload = find(key, id);
    if (!upload)
    {
        throw ResourceNotFoundException("there is no upload " + quoted(id) + " of " + quoted(key));
    }
    return upload;
}

std::vector<PendingUpload> BlockUploads::pending() const
{
    std::vector<PendingUpload> uploads;
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, upload] : m_uploads)
    {
        uploads.push_back({upload->key, id, upload->created});
    }
    return uploads;
}

void BlockUploads::close(const std::string& id)
{
    const std::lock_guard lock(m_mutex);
    m_uploads.erase(id);
}

} // namespace storage::clients::azure
