#include "FaultProxy.hpp"
#include "FileSession.hpp"
#include "Gateway.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

// Two clients and one file. One opens it, reads it from beginning to end, patches it and closes; the other changes the
// object just before one of the requests that this takes, be it the first or the completion.

namespace storage::clients::s3::test
{

namespace
{

using namespace cloudprovider;
using namespace clients::test;

constexpr std::size_t smallSize = 100'000;
constexpr std::size_t largeSize = (7 << 20) + 1000; // is copied in part

void put(CloudClient& client, const std::string& bytes)
{
    std::istringstream content(bytes);
    client.putObject("file", content, bytes.size());
}

void putInParts(CloudClient& client, const std::string& bytes)
{
    const std::string upload = client.createMultipartUpload("file", "");
    std::istringstream content(bytes);
    PartInfo part{0, 0, bytes.size(), ""};
    part.Tag = client.uploadPart("file", upload, part, content);
    client.completeMultipartUpload("file", upload, {part});
}

std::string get(CloudClient& client)
{
    std::ostringstream stored;
    client.getObjectInfo("file").exists ? client.getObjectRange("file", stored, 0, 0) : void();
    return stored.str();
}

std::string patched(std::string bytes, std::size_t size)
{
    bytes.resize(std::max(bytes.size(), size / 2 + 5));
    return bytes.replace(size / 2, 5, "patch");
}

struct Race
{
    const char* name;
    bool worksAhead;
    std::size_t size;
    void (*change)(CloudClient& other, const std::string& theirs);
};

void remove(CloudClient& other, const std::string&)
{
    other.deleteObject("file");
}

class RaceTest : public testing::TestWithParam<Race>
{
};

TEST_P(RaceTest, TheObjectIsWhollyTheirsOrWhollyOurs)
{
    REQUIRE_GATEWAY();
    const auto& [name, worksAhead, size, change] = GetParam();
    const GatewayBucket bucket;
    S3Client other(bucket.settings());
    const std::string before(size, 'o');
    const std::string theirs(change == remove ? 0 : size, 't');
    bool reached = true;
    for (std::size_t n = 1; reached && !HasFailure(); ++n)
    {
        SCOPED_TRACE(testing::Message() << name << " before request " << n);
        put(other, before);
        FaultProxy proxy(bucket.settings().endpoint);
        proxy.setPlan(
            [&, act = change](const Request&, std::size_t number)
            {
                number == n ? act(other, theirs) : void();
                return Fault::None;
            });
        S3Settings settings = bucket.settingsThrough(proxy.url());
        settings.partSize = 1 << 20; // fewer requests, as each of them is raced
        const auto client = std::make_shared<S3Client>(settings);
        auto session = std::make_unique<FileSession>(worksAhead ? workingAhead(client) : client);
        session->open(fsp::ByteStreamTruncate::Keep);
        const std::string bytes = session->readAll();
        session->write(size / 2, "patch");
        session->close();
        const bool succeeded = session->succeeded();
        session.reset(); // a prefetch may still be running, and their change be held up behind it

        const auto requests = proxy.seen().size();
        const std::string& seen = bytes.starts_with('o') ? before : theirs;
        const std::string now = get(other);
        reached = requests >= n;
        EXPECT_TRUE(seen.starts_with(bytes)) << "what was read is a mixture";
        EXPECT_TRUE(!succeeded || bytes.size() == seen.size()) << "not all was read";
        EXPECT_EQ(now == theirs, reached && !succeeded) << "theirs was replaced, or ours was not stored";
        EXPECT_TRUE(now == theirs || now == patched(seen, size)) << "what is stored is a mixture";
        if (size == largeSize && reached && seen == before && succeeded)
        {
            // This endpoint cannot check and complete in one step. Even then nothing is mixed.
            EXPECT_EQ(n, requests) << "their version was replaced without an error";
        }
        EXPECT_TRUE(succeeded || n > 1) << "nothing of the old version had been seen yet";
        EXPECT_TRUE(reached || (succeeded && n > (size == largeSize ? 8 : 3))) << n << " requests";
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, RaceTest,
    testing::Values(Race{"PutAhead", true, largeSize, put}, Race{"DeleteAhead", true, largeSize, remove},
        Race{"PutInPartsAhead", true, smallSize, putInParts}, Race{"PutInParts", false, largeSize, putInParts},
        Race{"PutSmall", false, smallSize, put}, Race{"DeleteSmall", false, smallSize, remove}),
    [](const auto& row) { return std::string(row.param.name); });

} // namespace

} // namespace storage::clients::s3::test
