#include "LogRecords.hpp"
#include "StoreTest.hpp"

#include <storage/cloudprovider/CloudProvider.hpp>

namespace storage::cloudprovider
{

namespace
{

using testing::AllOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class LogRecordsTest : public StoreTest
{
protected:
    const std::shared_ptr<fsp::IProvider> provider = buildCloudProvider(store, FolderPolicy::MarkerObjects, false);
};

/// Counts how often it is printed.
struct Probe
{
    mutable int prints = 0;
};

std::ostream& operator<<(std::ostream& out, const Probe& probe)
{
    ++probe.prints;
    return out << "probe";
}

TEST_F(LogRecordsTest, NothingIsPrintedUnlessTheMaskSaysSo)
{
    const Probe probe;
    for (const auto& [mask, prints] : {std::pair{0U, 0}, {4U | 16U | 512U, 0}, {2U, 1}})
    {
        getLogger().setEnabledSeverities(mask);
        logEntry(CallSite("f()", "src/F"), named("probe", probe));
        EXPECT_EQ(probe.prints, prints) << mask;
    }
    EXPECT_THAT(log.take(2), ElementsAre(testing::ContainsRegex("^f.. .src/F:[0-9]+. probe=probe$")));

    getLogger().setEnabledSeverities(~(2U | 16U));
    EXPECT_EQ(outcome([&] { provider->createFolder(iri("no/d")); }), "4 cloud://store/no/d");
    for (const std::uint32_t severity : {2U, 16U})
    {
        EXPECT_THAT(log.take(severity), IsEmpty());
    }
}

TEST_F(LogRecordsTest, ThePartLayerNamesItsArguments)
{
    store->put("a", "stored");
    getLogger().setEnabledSeverities(2);
    {
        const fsp::ByteStreamPtr stream =
            provider->openStream(iri("a"), {fsp::ByteStreamReadAccess{1}, fsp::ByteStreamCreate{1},
                                               fsp::ByteStreamTruncate{1}, fsp::ByteStreamWritePosition{1}});
        stream->seek(2, std::ios_base::beg);
        stream->write("x", 1);
    }
    const Lines records = log.take(2);
    const std::tuple<const char*, const char*, const char*> rows[] = {// function, source, end of the record
        {"::initPreserveExisting(bool)", "OpenPartManager", " requirePresent=1"},
        {"::openPart(size_t, bool)", "OpenPartManager", " fileOffset=2 createIfNonExistent=1"},
        {"::findPartIndex(size_t) const", "OpenPartManager", " partIndex=0"},
        {"::OpenPartBuffer(", "OpenPartBuffer",
            " m_info=PartInfo{Index=0,Offset=0,Size=0,Tag=\"\"} m_localDataVersion=NEW"},
        {"::increaseSize(size_t, size_t)", "OpenPartBuffer", " amount=1 offset=2"},
        {"::~MultipartUploadManager()", "MultipartUploadManager", ""}};
    for (const auto& [function, source, end] : rows)
    {
        EXPECT_THAT(records,
            testing::Contains(AllOf(testing::HasSubstr(function),
                testing::HasSubstr(std::string("storage/cloudprovider/src/") + source), testing::EndsWith(end))));
    }
}

TEST_F(LogRecordsTest, CaughtExceptionsNameTypeAndText)
{
    fail(clients::Operation::GetObjectInfo, 1, std::make_exception_ptr(PermissionDeniedException("go away", "why")));
    EXPECT_EQ(outcome([&] { provider->fileExists(iri("a")); }), "2 (why) cloud://store/a");
    EXPECT_THAT(log.take(16),
        ElementsAre(AllOf(StartsWith("Exception caught: "),
            testing::HasSubstr("storage::cloudprovider::PermissionDeniedException"), testing::HasSubstr("go away"))));
    outcome([&] { provider->fileExists(fsp::StorageIRI(u"no iri")); });
    EXPECT_THAT(log.take(16), SizeIs(2)) << "a failed resolution is caught where it failed and by the operation";
}

} // namespace

} // namespace storage::cloudprovider
