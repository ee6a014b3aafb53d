#pragma once

#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <iomanip>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace storage::cloudprovider
{

/// The memory store, which also keeps a line of every call with its arguments, keys in single quotes.
///
/// Everything in it was stored 5 seconds after 1970 began. Use it from one thread.
class TestStore : public clients::MemoryClient
{
public:
    using Lines = std::vector<std::string>;

    TestStore()
        : MemoryClient([] { return utils::long2Ptime(5000); })
    {
    }

    /// Give the calls since the last time.
    Lines takeCalls() { return std::exchange(m_calls, {}); }

    /// If there are any, what listings give instead of the objects' keys; the tokens are page numbers.
    std::vector<std::vector<ObjectEntry>> pages;

    ObjectInfo getObjectInfo(const std::string& key) override
    {
        note("getObjectInfo", key);
        return MemoryClient::getObjectInfo(key);
    }

    void validateObjectName(const std::string& name) override
    {
        note("validateObjectName", name);
        MemoryClient::validateObjectName(name);
    }

    std::vector<ObjectEntry> listObjects(
        const std::string& prefix, std::string& continuationToken, const ListOptions& options) override
    {
        note("listObjects", prefix, quote(options.delimiter), options.maxKeys);
        if (pages.empty())
        {
            return MemoryClient::listObjects(prefix, continuationToken, options);
        }
        return faults().run(clients::Operation::ListObjects, prefix,
            [&]
            {
                const std::size_t page = continuationToken.empty() ? 0 : std::stoul(continuationToken);
                continuationToken = page + 1 < pages.size() ? std::to_string(page + 1) : "";
                return pages.at(page);
            });
    }

    void deleteObject(const std::string& key) override
    {
        note("deleteObject", key);
        MemoryClient::deleteObject(key);
    }

    void getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last) override
    {
        note("getObjectRange", key, first, last);
        MemoryClient::getObjectRange(key, out, first, last);
    }

    void putObject(const std::string& key, std::istream& content, std::uint64_t size) override
    {
        note("putObject", key, size);
        MemoryClient::putObject(key, content, size);
    }

    std::vector<PartInfo> getObjectParts(const std::string& key) override
    {
        note("getObjectParts", key);
        return MemoryClient::getObjectParts(key);
    }

    std::string createMultipartUpload(const std::string& key, const std::string& tag) override
    {
        note("createMultipartUpload", key);
        lastTagOfCreate = tag;
        return MemoryClient::createMultipartUpload(key, tag);
    }

    std::string uploadPart(
        const std::string& key, const std::string& uploadId, const PartInfo& part, std::istream& content) override
    {
        note("uploadPart", key, place(part));
        return lastTagOfUpload = MemoryClient::uploadPart(key, uploadId, part, content);
    }

    std::string copyPart(const std::string& key, const std::string& uploadId, const PartInfo& part) override
    {
        note("copyPart", key, place(part));
        return MemoryClient::copyPart(key, uploadId, part);
    }

    void abortMultipartUpload(const std::string& key, const std::string& uploadId) override
    {
        note("abortMultipartUpload", key);
        MemoryClient::abortMultipartUpload(key, uploadId);
    }

    void completeMultipartUpload(
        const std::string& key, const std::string& uploadId, const std::vector<PartInfo>& parts) override
    {
        std::string places;
        for (const PartInfo& part : parts)
        {
            places += (places.empty() ? "" : " ") + place(part);
        }
        note("completeMultipartUpload", key, places);
        MemoryClient::completeMultipartUpload(key, uploadId, parts);
    }

    std::string lastTagOfCreate;
    std::string lastTagOfUpload;

private:
    static std::string quote(const std::string& text) { return "'" + text + "'"; }

    static std::string place(const PartInfo& part) // index@offset+size
    {
        return std::to_string(part.Index) + "@" + std::to_string(part.Offset) + "+" + std::to_string(part.Size);
    }

    template <typename... Values>
    void note(const char* call, const std::string& key, const Values&... values)
    {
        std::ostringstream line;
        line << call << ' ' << quote(key);
        ((line << ' ' << values), ...);
        m_calls.push_back(line.str());
    }

    Lines m_calls;
};

} // namespace storage::cloudprovider
