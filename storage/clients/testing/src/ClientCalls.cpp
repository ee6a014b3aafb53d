#include <storage/clients/testing/ClientCalls.hpp>

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <utility>

namespace storage::clients::conformance
{

using namespace cloudprovider;

void put(CloudClient& client, const std::string& key, const std::string& content)
{
    std::istringstream in(content);
    client.putObject(key, in, content.size());
}

std::string get(CloudClient& client, const std::string& key, std::uint64_t first, std::uint64_t last)
{
    std::ostringstream out;
    client.getObjectRange(key, out, first, last);
    return std::move(out).str();
}

PartInfo uploadPart(CloudClient& client, const std::string& key, const std::string& uploadId, std::size_t index,
    const std::string& content, std::uint64_t offset)
{
    std::istringstream in(content);
    PartInfo part{index, offset, content.size(), ""};
    part.Tag = client.uploadPart(key, uploadId, part, in);
    return part;
}

void putParts(CloudClient& client, const std::string& key, const std::vector<std::string>& parts)
{
    const std::string uploadId = client.createMultipartUpload(key, "");
    std::vector<PartInfo> uploaded;
    for (const std::string& part : parts)
    {
        uploaded.push_back(uploadPart(client, key, uploadId, uploaded.size(), part));
    }
    client.completeMultipartUpload(key, uploadId, uploaded);
}

std::vector<ObjectEntry> list(CloudClient& client, const std::string& prefix, const ListOptions& options)
{
    constexpr int maxPages = 10'000; // no listing of a test has as many entries
    std::vector<ObjectEntry> result;
    std::string token;
    int pages = 0;
    do
    {
        auto entries = client.listObjects(prefix, token, options);
        EXPECT_TRUE(options.maxKeys < 0 || std::cmp_less_equal(entries.size(), options.maxKeys)) << entries.size();
        std::move(entries.begin(), entries.end(), std::back_inserter(result));
    } while (!token.empty() && ++pages < maxPages);
    EXPECT_EQ(token, "") << "the listing must end";
    return result;
}

std::vector<std::string> keys(CloudClient& client, const std::string& prefix)
{
    std::vector<std::string> result;
    for (ObjectEntry& entry : list(client, prefix))
    {
        result.push_back(std::move(entry.key));
    }
    return result;
}

} // namespace storage::clients::conformance
