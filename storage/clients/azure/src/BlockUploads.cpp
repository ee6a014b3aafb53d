#include "BlockUploads.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <fmt/format.h>

#include <random>
#include <utility>

namespace storage::clients::azure
{

using namespace cloudprovider;

namespace
{

constexpr std::size_t digitsOfNumber = 5;             // up to maxBlocks
constexpr std::size_t minIdSize = digitsOfNumber + 8; // 32 random bits tell uploads apart
constexpr std::size_t ownIdSize = 24;                 // no padding in base64

std::string randomId()
{
    std::random_device random;
    return fmt::format("{:08x}{:08x}", random(), random());
}

} // namespace

std::string BlockUpload::blockId(std::size_t number) const
{
    std::string text = id;
    text.resize(idSize - digitsOfNumber, '0');
    return toBase64(text + fmt::format("{:05}", number));
}

std::optional<std::string> BlockUpload::takeRun(const CopySource& source, const ByteRange& range) const
{
    if (source.key != key || source.version.tag != tag)
    {
        return std::nullopt;
    }
    std::uint64_t offset = 0;
    std::size_t first = 0;
    for (; first < blocks.size() && offset < range.offset; ++first)
    {
        offset += blocks[first].size;
    }
    const std::uint64_t end = range.offset + range.size;
    std::size_t last = first;
    std::uint64_t covered = offset;
    for (; last < blocks.size() && covered < end; ++last)
    {
        covered += blocks[last].size;
    }
    return offset == range.offset && covered == end ? std::optional(fmt::format("run:{}:{}", first, last))
                                                    : std::nullopt;
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
    if (result.size() > maxBlocks)
    {
        throw UnknownErrorException("Too many blocks",
            fmt::format("completeMultipartUpload of {} failed: the blob would have {} blocks, at most {} are allowed; "
                        "copy the file, which writes it with fewer",
                quoted(key), result.size(), maxBlocks));
    }
    return result;
}

std::string BlockUploads::open(
    const std::string& key, const std::string& tag, const BlockList& list, HttpHeaders headers)
{
    auto upload = std::make_shared<BlockUpload>(BlockUpload{randomId(),
        boost::posix_time::microsec_clock::universal_time(), key, tag, list.committed, ownIdSize, std::move(headers)});
    const auto& known = list.committed.empty() ? list.uncommitted : list.committed;
    if (!known.empty())
    {
        upload->idSize = fromBase64(known.front().id).size();
    }
    if (upload->idSize < minIdSize)
    {
        throw UnknownErrorException("Unusable blob",
            fmt::format(
                "changing {} failed: it was written in blocks with ids of {} bytes, and at least {} are needed; "
                "copy the file to another name",
                quoted(key), upload->idSize, minIdSize));
    }
    const std::lock_guard lock(m_mutex);
    std::string id = upload->id;
    m_uploads.emplace(id, std::move(upload));
    return id;
}

std::shared_ptr<const BlockUpload> BlockUploads::find(const std::string& key, const std::string& id) const
{
    const std::lock_guard lock(m_mutex);
    const auto upload = m_uploads.find(id);
    return upload != m_uploads.end() && upload->second->key == key ? upload->second : nullptr;
}

std::shared_ptr<const BlockUpload> BlockUploads::get(const std::string& key, const std::string& id) const
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
