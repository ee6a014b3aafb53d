#include "OpenPartManager.hpp"
#include "StoreTest.hpp"

#include <storage/cloudprovider/OpenFileManager.hpp>

namespace storage::cloudprovider
{

namespace
{

using clients::Operation;
using testing::AllOf;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::IsEmpty;

struct OpenRow
{
    const char* name;
    std::uint32_t create;
    std::uint32_t truncate;
    bool isStored; // whether the file exists, with 6 bytes
    std::string outcome;
    Lines calls;
};

class OpenFileManagerTest : public StoreTest, public ::testing::WithParamInterface<OpenRow>
{
protected:
    std::shared_ptr<OpenPartManager> open(std::uint32_t create, std::uint32_t truncate)
    {
        return manager.open(iri("d/k"), fsp::ByteStreamCreate{create}, fsp::ByteStreamTruncate{truncate}, store);
    }

    fsp::ByteStreamPtr openStream(std::uint32_t read, std::uint32_t create, std::uint32_t truncate)
    {
        return manager.openReadWrite(iri("d/k"),
            {fsp::ByteStreamReadAccess{read}, fsp::ByteStreamCreate{create}, fsp::ByteStreamTruncate{truncate},
                fsp::ByteStreamWritePosition{1}},
            store);
    }

    OpenFileManager manager;
};

TEST_P(OpenFileManagerTest, OpensAsAsked)
{
    const OpenRow& row = GetParam();
    if (row.isStored)
    {
        store->put("d/k", "stored");
    }
    EXPECT_EQ(outcome([&] { return std::to_string(open(row.create, row.truncate)->getFileSize()); }), row.outcome);
    EXPECT_EQ(store->takeCalls(), row.calls);
    EXPECT_FALSE(manager.isOpen(iri("d/k"))) << "failed, or nobody holds it any more";
}

INSTANTIATE_TEST_SUITE_P(Options, OpenFileManagerTest,
    ::testing::Values(OpenRow{"keepStored", 0, 1, true, "6", {"getObjectParts 'd/k'"}},
        OpenRow{"keepMissing", 0, 1, false, "0", {"getObjectParts 'd/k'"}},
        OpenRow{"keepRequired", 1, 1, true, "6", {"getObjectParts 'd/k'"}},
        OpenRow{"keepRequiredMissing", 1, 1, false, "Cloud Resource not found", {"getObjectParts 'd/k'"}},
        OpenRow{"discardRequired", 1, 0, true, "0", {"getObjectInfo 'd/k'"}},
        OpenRow{"discardRequiredMissing", 1, 0, false, "Cloud Resource not found", {"getObjectInfo 'd/k'"}},
        OpenRow{"discard", 0, 0, true, "0", {"validateObjectName 'k'"}},
        OpenRow{"discardOtherValues", 2, 3, true, "0", {"validateObjectName 'k'"}},
        OpenRow{"keepOtherCreate", 2, 1, false, "0", {"getObjectParts 'd/k'"}},
        OpenRow{"requiredOtherTruncate", 1, 2, true, "0", {"getObjectInfo 'd/k'"}}),
    RowName());

TEST_F(OpenFileManagerTest, AnOpenFileIsSharedAsItIs)
{
    const fsp::ByteStreamPtr writer = openStream(0, 0, 0);
    writer->write("written", 7);
    store->takeCalls();
    const fsp::ByteStreamPtr reader = manager.openReadOnly(iri("d/k"), store);
    EXPECT_EQ(readAll(*reader), "written") << "although nothing is in the store yet";
    const fsp::ByteStreamPtr truncating = openStream(1, 1, 0);
    EXPECT_EQ(readAll(*truncating), "written") << "nothing is discarded under another stream";
    EXPECT_EQ(open(0, 0), open(1, 1));
    EXPECT_THAT(store->takeCalls(), IsEmpty());
    writer->close();
    truncating->close();
    EXPECT_FALSE(store->get("d/k")) << "not the last stream";
    reader->close();
    EXPECT_EQ(store->get("d/k"), "written");
    EXPECT_FALSE(manager.isOpen(iri("d/k")));
    EXPECT_NE(open(0, 0), nullptr);
}

TEST_F(OpenFileManagerTest, IsOpenWhileAFileIsBeingOpened)
{
    store->put("d/k", "stored");
    std::vector<bool> seen;
    store->faults().setHook(
        [&](Operation, const std::string&)
        {
            seen.push_back(manager.isOpen(iri("d/k"))); // would never return under the registry's lock
            seen.push_back(manager.isOpen(iri("d")));
            if (seen.size() == 2)
            {
                manager.open(iri("other"), fsp::ByteStreamCreate{0}, fsp::ByteStreamTruncate{0}, store);
                EXPECT_TRUE(manager.isOpen(iri("d/k"))) << "an open of another file sweeps what is stale only";
            }
        });
    EXPECT_NE(open(1, 1), nullptr);
    EXPECT_THAT(seen, ElementsAre(true, false, true, false));
}

TEST_F(OpenFileManagerTest, FailedOpenLeavesNothingAndCanBeRepeated)
{
    fail(Operation::ValidateObjectName, 1, std::make_exception_ptr(InvalidLocationException("bad name", "d")));
    EXPECT_EQ(outcome([&] { open(0, 0); }), "bad name");
    EXPECT_FALSE(manager.isOpen(iri("d/k")));
    const auto partManager = open(0, 0);
    EXPECT_TRUE(manager.isOpen(iri("d/k")));
    EXPECT_THAT(store->takeCalls(), ElementsAre("validateObjectName 'k'", "validateObjectName 'k'"));

    try
    {
        manager.openReadOnly(iri("no"), store);
        ADD_FAILURE();
    }
    catch (const ResourceNotFoundException&) // unchanged, for the provider to translate
    {
    }
    store->put("u", "x");
    try
    {
        manager.open(iri("gone"), fsp::ByteStreamCreate{1}, fsp::ByteStreamTruncate{0}, store);
        ADD_FAILURE();
    }
    catch (const ResourceNotFoundException& exception)
    {
        EXPECT_EQ(exception.detail(), std::nullopt);
    }
}

TEST_F(OpenFileManagerTest, StreamsRefuseTheOtherDirectionAndStayWhereTheyAre)
{
    store->put("d/k", "stored");
    char byte = '?';
    const fsp::ByteStreamPtr reader = manager.openReadOnly(iri("d/k"), store);
    reader->seek(2, std::ios_base::beg);
    store->takeCalls();
    EXPECT_EQ(outcome([&] { reader->write("x", 1); }), "ByteStreamWriteFailure 2");
    EXPECT_THAT(store->takeCalls(), IsEmpty());
    EXPECT_EQ(readAll(*reader), "ored");

    const fsp::ByteStreamPtr writer = openStream(0, 0, 1);
    writer->seek(3, std::ios_base::beg);
    EXPECT_EQ(outcome([&] { writer->read(&byte, 1); }), "ByteStreamReadFailure 2");
    EXPECT_EQ(writer->seek(0, std::ios_base::cur), 3);
    writer->write("X", 1);
    writer->close();
    writer->close();
    reader->close();
    EXPECT_EQ(store->get("d/k"), "stoXed");

    const fsp::ByteStreamPtr both = openStream(7, 0, 1);
    EXPECT_EQ(both->read(&byte, 1), 1) << "any read access but 0 reads";
    EXPECT_EQ(both->write("Y", 1), 1);
}

TEST_F(OpenFileManagerTest, FilesKeepTheSizesOfTheirFirstOpen)
{
    const ScopedVariable first("ZV_CLOUD_PART_SIZE_OVERRIDE", "4");
    const fsp::ByteStreamPtr stream = openStream(1, 0, 0);
    const ScopedVariable second("ZV_CLOUD_PART_SIZE_OVERRIDE", "400");
    const fsp::ByteStreamPtr other = openStream(1, 0, 0);
    other->write("six by", 6);
    stream->close();
    other->close();
    EXPECT_EQ(store->callSnapshot()[Operation::UploadPart].calls, 2);
}

TEST_F(OpenFileManagerTest, LogsWhatItOpens)
{
    store->put("d/k", "stored");
    getLogger().setEnabledSeverities(2);
    const auto hasRecord = [&](const std::string& signature, const std::string& end)
    {
        EXPECT_THAT(log.take(2), Contains(AllOf(testing::StartsWith(signature),
                                     ContainsRegex("src/OpenFileManager[^/]*[0-9]+"), testing::EndsWith(end))));
    };
    manager.openReadOnly(iri("d/k"), store);
    hasRecord("fsp::ByteStreamPtr storage::cloudprovider::OpenFileManager::openReadOnly(fsp::StorageIRI, "
              "CloudClientSharedPtr)",
        " iri=cloud://store/d/k");
    const fsp::ByteStreamOpenOptions options{};
    manager.openReadWrite(iri("d/k"), options, store);
    std::ostringstream printed;
    printed << " iri=cloud://store/d/k options=" << options;
    hasRecord("fsp::ByteStreamPtr storage::cloudprovider::OpenFileManager::openReadWrite(StorageIRI, const "
              "fsp::ByteStreamOpenOptions &, CloudClientSharedPtr)",
        printed.str());
}

} // namespace

} // namespace storage::cloudprovider
