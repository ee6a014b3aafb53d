#include "MemoryStore.hpp"

#include <storage/clients/memory/MemoryClient.hpp>

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <sstream>
#include <utility>

namespace storage::clients
{

using cloudprovider::ListOptions;
using cloudprovider::ObjectEntry;
using cloudprovider::ObjectInfo;
using cloudprovider::PartInfo;
using cloudprovider::ResourceNotFoundException;

namespace
{

// A token is the number of empty pages still to come, a colon, and where the next page begins.
std::string makeToken(unsigned emptyPages, std::string_view from)
{
    return fmt::format("{}:{}", emptyPages, from);
}

std::pair<unsigned, std::string> readToken(const std::string& token)
{
    unsigned emptyPages = 0;
    const char* const end = token.data() + token.size();
    const auto [at, error] = std::from_chars(token.data(), end, emptyPages);
    if (error != std::errc{} || at == end || *at != ':')
    {
        throw cloudprovider::UnknownErrorException(
            "Invalid continuation token", "listing: " + quoted(token) + " is no token of this store");
    }
    return {emptyPages, std::string(at + 1, end)};
}

} // namespace

MemoryClient::MemoryClient(Clock clock)
    : m_clock(clock ? std::move(clock) : Clock(boost::posix_time::microsec_clock::universal_time))
    , m_store(std::make_unique<MemoryStore>())
{
}

MemoryClient::~MemoryClient() = default;

template <typename Body>
auto MemoryClient::perform(Operation operation, const std::string& key, Body&& body)
{
    m_counters.countCall(operation);
    return m_faults.run(operation, key, std::forward<Body>(body));
}

ObjectInfo MemoryClient::getObjectInfo(const std::string& key)
{
    return perform(Operation::GetObjectInfo, key,
        [&]
        {
            ObjectInfo info = m_store->info(key);
            info.exists = info.exists || key.empty(); // the root
            return info;
        });
}

void MemoryClient::validateObjectName(const std::string& name)
{
    perform(Operation::ValidateObjectName, name, [&] { checkObjectName(name); });
}

std::vector<ObjectEntry> MemoryClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const ListOptions& options)
{
    return perform(Operation::ListObjects, prefix,
        [&]() -> std::vector<ObjectEntry>
        {
            const unsigned emptyPages = m_emptyPages;
            auto [emptyLeft, from] =
                continuationToken.empty() ? std::pair{emptyPages, std::string()} : readToken(continuationToken);
            if (emptyLeft != 0)
            {
                continuationToken = makeToken(emptyLeft - 1, from);
                return {};
            }
            auto page = m_store->list(prefix, from, options, m_pageSize);
            continuationToken = from.empty() ? from : makeToken(emptyPages, from);
            return page;
        });
}

void MemoryClient::deleteObject(const std::string& key)
{
    perform(Operation::DeleteObject, key, [&] { m_store->remove(key); });
}

void MemoryClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    perform(Operation::GetObjectRange, key,
        [&]
        {
            const auto content = m_store->find(key);
            if (!content)
            {
                throw ResourceNotFoundException("reading: there is no object " + quoted(key));
            }
            const ByteRange range = resolveRange(key, first, last, content->bytes.size());
            const std::uint64_t size = std::min(range.size, m_downloadLimit.load());
            content->bytes.write(key, out, range.offset, size);
            m_counters.countBytes(Operation::GetObjectRange, size);
        });
}

void MemoryClient::putObject(const std::string& key, std::istream& content, std::uint64_t size)
{
    perform(Operation::PutObject, key,
        [&]
        {
            checkKey(key);
            SharedBytes bytes(key, content, size);
            m_store->put(key, std::move(bytes), m_clock());
            m_counters.countBytes(Operation::PutObject, size);
        });
}

std::vector<PartInfo> MemoryClient::getObjectParts(const std::string& key)
{
    return perform(Operation::GetObjectParts, key, [&] { return m_store->parts(key); });
}

std::string MemoryClient::createMultipartUpload(const std::string& key, const std::string& tag)
{
    return perform(Operation::CreateMultipartUpload, key,
        [&]
        {
            checkKey(key);
            return m_store->openUpload(key, tag, m_clock());
        });
}

std::string MemoryClient::uploadPart(
    const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content)
{
    return perform(Operation::UploadPart, key,
        [&]
        {
            m_store->checkUpload(key, uploadId); // rather than after the transfer
            std::string tag = m_store->addPart(key, uploadId, part.Index, SharedBytes(key, content, part.Size));
            m_counters.countPart(Operation::UploadPart, part.Index, part.Size);
            return tag;
        });
}

std::string MemoryClient::copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part)
{
    return perform(Operation::CopyPart, key,
        [&]
        {
            std::string tag = m_store->copyPart(key, uploadId, part);
            m_counters.countPart(Operation::CopyPart, part.Index, part.Size);
            return tag;
        });
}

void MemoryClient::abortMultipartUpload(const std::string& key, const std::string& uploadId)
{
    perform(Operation::AbortMultipartUpload, key, [&] { m_store->abort(key, uploadId); });
}

void MemoryClient::completeMultipartUpload(
    const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts)
{
    perform(Operation::CompleteMultipartUpload, key, [&] { m_store->complete(key, uploadId, parts, m_clock()); });
}

CallSnapshot MemoryClient::callSnapshot() const
{
    return m_counters.snapshot();
}

void MemoryClient::put(const std::string& key, std::string_view content)
{
    checkKey(key);
    m_store->put(key, SharedBytes(content), m_clock());
}

std::optional<std::string> MemoryClient::get(const std::string& key) const
{
    const auto content = m_store->find(key);
    if (!content)
    {
        return std::nullopt;
    }
    std::ostringstream out;
    content->bytes.write(key, out, 0, content->bytes.size());
    return std::move(out).str();
}

bool MemoryClient::remove(const std::string& key)
{
    return m_store->remove(key);
}

std::vector<std::string> MemoryClient::keys() const
{
    return m_store->keys();
}

std::vector<PendingUpload> MemoryClient::pendingUploads()
{
    std::vector<PendingUpload> pending;
    for (OpenUpload& upload : openUploads())
    {
        pending.push_back({std::move(upload.key), std::move(upload.uploadId), upload.created});
    }
    return pending;
}

std::vector<OpenUpload> MemoryClient::openUploads() const
{
    return m_store->openUploads();
}

void MemoryClient::setPageSize(std::size_t entries) noexcept
{
    m_pageSize = std::max<std::size_t>(entries, 1);
}

void MemoryClient::setEmptyPages(unsigned pages) noexcept
{
    m_emptyPages = pages;
}

void MemoryClient::setDownloadLimit(std::uint64_t bytes) noexcept
{
    m_downloadLimit = bytes;
}

} // namespace storage::clients
