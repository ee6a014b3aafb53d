#include "AzureStore.hpp"

#include <storage/clients/azure/AzureClient.hpp>
#include <storage/clients/decorators/FindInterface.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/clients/testing/CloudClientConformance.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <boost/algorithm/string/join.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>

#include <unistd.h>

// The client against an emulator of the service: what every store must do.

namespace storage::clients::azure::test
{

namespace
{

using namespace cloudprovider;
namespace fsp = foundation::storage::provider;

/// A container of its own in the emulator that the environment names, as scripts/gateway.sh sets it up.
class EmulatorContainer
{
public:
    EmulatorContainer() { send("PUT"); }
    EmulatorContainer(const EmulatorContainer&) = delete;
    EmulatorContainer& operator=(const EmulatorContainer&) = delete;
    ~EmulatorContainer() { EXPECT_NO_THROW(send("DELETE")); }

    /// Null: there is no emulator.
    static const char* endpoint() { return std::getenv("CLOUDFS_TEST_AZURE_ENDPOINT"); }

    static inline std::atomic<unsigned> count = 0;
    const std::string name = "test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);

    std::string url(const std::string& prefix = "") const
    {
        return std::string("azure://") + std::getenv("AZURE_STORAGE_ACCOUNT") + "/" + name + prefix +
               "?endpoint=" + endpoint();
    }

private:
    void send(const std::string& method) const
    {
        Requester(parseAzureUrl(url())).send({Operation::PutObject, "", method, {{"restype", "container"}}});
    }
};

/// With a prefix, the client is opened as a host does that.
template <bool hasPrefix>
class EmulatorHarness : public conformance::Harness
{
public:
    CloudClient& client() override { return *m_client; }
    CloudClientSharedPtr openAnother() override { return makeClient(); }

    CloudClientSharedPtr openReadOnly() override
    {
        AzureSettings settings = parseAzureUrl(m_container.url());
        settings.container += "-missing";
        return std::make_shared<AzureClient>(settings);
    }

    conformance::Capabilities capabilities() const override
    {
        conformance::Capabilities result;
        result.minPartSize = 5 << 20;
        result.noPartBoundaries = "an object is cut by rule";
        result.noSharedUploads = "an upload is a record of the instance";
        result.noBackslashes = "the server takes them for slashes";
        result.noTrailingDots = "the service ignores them";
        result.noCreationBesideUploads = "the server takes the blocks of an upload for a blob";
        result.noByteOrder = "the server compares the 16-bit units of names";
        result.maxKeyBytes -= hasPrefix ? prefix.size() : 0;
        return result;
    }

private:
    static inline const std::string prefix = "a +/\xC3\xA4/";

    CloudClientSharedPtr makeClient() const
    {
        return hasPrefix ? openStore(m_container.url("/" + uriEncodePath(prefix)))
                         : std::make_shared<AzureClient>(parseAzureUrl(m_container.url()));
    }

    const EmulatorContainer m_container;
    const CloudClientSharedPtr m_client = makeClient();
};

class EmulatorTest : public testing::Test
{
    void SetUp() override
    {
        if (EmulatorContainer::endpoint() == nullptr)
        {
            GTEST_SKIP() << "there is no emulator";
        }
    }
};

TEST_F(EmulatorTest, AChangedFileKeepsItsMetadata)
{
    const EmulatorContainer container;
    AzureStore store(parseAzureUrl(container.url()));
    AzureSettings settings = parseAzureUrl(container.url());
    const ObjectMetadata fields{{"x-ms-blob-content-type", "text/x-test"}, {"x-ms-blob-cache-control", "no-cache"},
        {"x-ms-blob-content-encoding", "gzip"}, {"x-ms-blob-content-disposition", "inline"},
        {"x-ms-blob-content-language", "de"}, {"x-ms-meta-a1", "a  b"}, {"x-ms-meta-a_b", "2"},
        {"x-ms-access-tier", "Cool"}, {"x-ms-tags", "a%20b=1&c="}};
    settings.newMetadata = [&](const std::string&) { return fields; };
    AzureClient client(settings);
    Requester requester(settings);
    const auto set = [&](const char* what, const char* tier, TextBody body)
    {
        AzureRequest request{Operation::PutObject, "a.html", "PUT", {{"comp", what}}, {}, &body};
        *tier != '\0' ? request.headers.add("x-ms-access-tier", tier) : void();
        requester.send(request);
    };
    const auto metadata = [&](const std::string& key)
    {
        const auto found = *store.findObject(key)->version.metadata;
        std::map<std::string, std::string> all(found.begin(), found.end());
        all["tags"] = requester.send({Operation::GetObjectInfo, key, "GET", {{"comp", "tags"}}}).body;
        return all;
    };
    conformance::put(client, "a.html", "old");
    auto expected = metadata("a.html");
    EXPECT_EQ(expected.size(), fields.size() + 1);
    client.copyObject("a.html", "b");
    EXPECT_EQ(metadata("b"), expected);
    // Each is set after the file was read or written, and before it is stored.
    set("tier", "Hot", TextBody(""));
    expected["x-ms-access-tier"] = "Hot";
    conformance::put(client, "a.html", "put");
    EXPECT_EQ(metadata("a.html"), expected);
    const std::string tag = client.getObjectParts("a.html").at(0).Tag;
    const std::string id = client.createMultipartUpload("a.html", tag);
    const PartInfo part = conformance::uploadPart(client, "a.html", id, 0, "part");
    set("tags", "", TextBody("<Tags><TagSet><Tag><Key>new</Key><Value>2</Value></Tag></TagSet></Tags>"));
    const auto changed = metadata("a.html");
    EXPECT_NE(changed, expected);
    client.completeMultipartUpload("a.html", id, {part});
    EXPECT_EQ(metadata("a.html"), changed);
}

TEST_F(EmulatorTest, AChangeSendsOneBlockAndOneList)
{
    const EmulatorContainer container;
    const auto client = std::make_shared<AzureClient>(parseAzureUrl(container.url()));
    std::vector<std::string> blocks(52); // 260 MiB
    std::ranges::generate(blocks, [letter = 'A']() mutable { return std::string(5 << 20, letter++); });
    conformance::putParts(*client, "k", blocks);
    const auto provider = buildCloudProvider(client, FolderPolicy::MarkerObjects, false);
    const auto stream = provider->openStream(fsp::StorageIRI(u"cloud://account/k"),
        {.truncate = fsp::ByteStreamTruncate::Keep, .writePosition = fsp::ByteStreamWritePosition::AtOffset});
    stream->seek(130 << 20, std::ios_base::beg);
    const std::string patch(1'024, 'c');
    stream->write(patch.data(), 1'024);
    CallSnapshot before = client->callSnapshot();
    stream->close();
    CallSnapshot after = client->callSnapshot();
    const auto isOf = [&](Operation operation, std::size_t calls, std::size_t bytes)
    {
        return after[operation].calls - before[operation].calls == calls &&
               after[operation].bytes - before[operation].bytes == bytes;
    };
    EXPECT_TRUE(isOf(Operation::UploadPart, 1, blocks[26].size()));
    EXPECT_TRUE(isOf(Operation::CompleteMultipartUpload, 1, 0));
    EXPECT_TRUE(isOf(Operation::PutObject, 0, 0));
    blocks[26].replace(0, patch.size(), patch);
    EXPECT_TRUE(conformance::get(*client, "k") == boost::algorithm::join(blocks, ""));
}

TEST_F(EmulatorTest, TheFirstOfTwoUploadsIsStored)
{
    const EmulatorContainer container;
    AzureClient client(parseAzureUrl(container.url()));
    const std::string ids[] = {client.createMultipartUpload("k", ""), client.createMultipartUpload("k", "")};
    std::vector<PartInfo> parts[2];
    for (const std::size_t upload : {0U, 1U})
    {
        for (const std::size_t index : {0U, 1U})
        {
            const std::string bytes(5 << 20, upload == 0 ? 'a' : 'b');
            parts[upload].push_back(
                conformance::uploadPart(client, "k", ids[upload], index, bytes, index * bytes.size()));
        }
    }
    client.completeMultipartUpload("k", ids[1], parts[1]);
    EXPECT_THAT([&] { client.completeMultipartUpload("k", ids[0], parts[0]); },
        testing::Throws<UnknownErrorException>(testing::Property(
            &CloudException::detail, testing::Optional(testing::HasSubstr("somebody else has written the blob")))));
    client.abortMultipartUpload("k", ids[0]);
    EXPECT_TRUE(conformance::get(client, "k") == std::string(10 << 20, 'b'));
}

/// A harness if there is an emulator; null: the case is skipped.
template <bool hasPrefix>
std::unique_ptr<conformance::Harness> makeHarness()
{
    return EmulatorContainer::endpoint() == nullptr ? nullptr : std::make_unique<EmulatorHarness<hasPrefix>>();
}

CLOUD_CLIENT_CONFORMANCE(Azure, makeHarness<false>);
CLOUD_CLIENT_CONFORMANCE(OpenedAzure, makeHarness<true>);

} // namespace

} // namespace storage::clients::azure::test
