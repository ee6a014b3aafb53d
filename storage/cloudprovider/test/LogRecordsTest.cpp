#include "LogRecords.hpp"
#include "StoreTest.hpp"

namespace storage::cloudprovider
{

namespace
{

using testing::ContainsRegex;
using testing::HasSubstr;

using LogRecordsTest = StoreTest;

/// Counts how often it is printed.
struct Probe
{
    mutable int prints = 0;

    friend std::ostream& operator<<(std::ostream& out, const Probe& probe)
    {
        ++probe.prints;
        return out << "probe";
    }
};

TEST_F(LogRecordsTest, NothingIsPrintedUnlessTheMaskSaysSo)
{
    const Probe probe;
    for (const auto& [mask, prints] : {std::pair{0U, 0}, {4U | 16U | 512U, 0}, {2U, 1}})
    {
        getLogger().setEnabledSeverities(mask);
        logEntry(CallSite("f()", "src/F"), named("probe", probe));
        EXPECT_EQ(probe.prints, prints) << mask;
    }
    EXPECT_THAT(takeLog(2), testing::ElementsAre(ContainsRegex("^f.. .src/F:[0-9]+. probe=probe$")));
}

TEST_F(LogRecordsTest, FunctionsNameThemselvesTheirArgumentsAndResults)
{
    getLogger().setEnabledSeverities(2);
    store->put("a", "stored");
    provider->moveFile(iriOf("a"), iriOf("b"), fsp::ReplacementPolicy::Replace);
    const std::vector<std::string> records = takeLog(2);
    const char* const entry = "virtual void storage::cloudprovider::CloudProvider::doMoveFile(const StorageIRI &, "
                              "const StorageIRI &, const fsp::ReplacementPolicy &) const (src/CloudProvider:";
    EXPECT_THAT(
        records.front(), testing::AllOf(testing::StartsWith(entry), testing::EndsWith(") old_iri=mem://test/a")));
    for (const char* const part : {" iri=mem://test/b options={readAccess=None, create=IfMissing, truncate=Discard, ",
             " fileOffset=0 createIfNonExistent=1", " partIndex=0", " bytesRead=6", " bytesWritten=6",
             " m_fileOffset=0", " newSizeInBytes=5242880"})
    {
        EXPECT_THAT(records, testing::Contains(HasSubstr(part)));
    }
}

TEST_F(LogRecordsTest, CaughtExceptionsNameTypeAndText)
{
    fail(Operation::GetObjectInfo, 1, refused);
    EXPECT_ANY_THROW(provider->fileExists(iriOf("a")));
    EXPECT_THAT(
        takeLog(16), testing::ElementsAre(testing::AllOf(testing::StartsWith("Exception caught: "),
                         HasSubstr("storage::cloudprovider::PermissionDeniedException"), HasSubstr("refused"))));
}

} // namespace

} // namespace storage::cloudprovider
