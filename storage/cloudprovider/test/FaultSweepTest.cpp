#include "LocalStore.hpp"

#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <numeric>
#include <optional>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

// Whole scenarios in which one thing after the other goes wrong. Whatever it is: an object is the old one or the new
// one, byte for byte; whoever asked for a new one and did not get it was told so; nothing is left behind.

namespace storage::cloudprovider
{

namespace
{

using clients::Fault;
using clients::Operation;
using Contents = std::optional<std::string>; // nothing: no object

/// The steps of a scenario on "file", and what the caller believes to have come of them.
struct Script
{
    static constexpr std::size_t theEnd = ~std::size_t{0};

    /// One step. After a failure the next ones are done all the same, or none if the script gives up.
    template <typename Step>
    void attempt(Step step)
    {
        if (codes.empty() || !givesUp)
        {
            const int code = codeOf(step);
            code != succeeds ? codes.push_back(code) : void();
        }
    }

    fsp::ByteStreamPtr open(const fsp::ByteStreamOpenOptions& options)
    {
        fsp::ByteStreamPtr stream;
        attempt([&] { stream = provider.openStream(iriOf("file"), options); });
        return stream;
    }

    /// Write into the file and into `content`, which gets what really went in when the write fails.
    /// @param offset  theEnd: the stream appends
    void write(const fsp::ByteStreamPtr& stream, std::size_t offset, const std::string& bytes)
    {
        const bool appends = offset == theEnd;
        const std::size_t start = appends ? content.size() : offset;
        const auto adopt = [&](std::size_t written, std::size_t size)
        {
            content.resize(std::max(content.size(), size), '\0');
            content.replace(std::min(start, content.size()), written, bytes, 0, written);
        };
        const auto step = [&]
        {
            appends ? std::streampos() : stream->seek(static_cast<std::streamoff>(start), std::ios_base::beg);
            try
            {
                cloudprovider::write(*stream, bytes);
                adopt(bytes.size(), start + bytes.size());
            }
            catch (const fsp::ByteStreamFailure&)
            {
                const auto position = static_cast<std::size_t>(stream->seek(0, std::ios_base::cur));
                const auto size = static_cast<std::size_t>(stream->seek(0, std::ios_base::end));
                adopt((appends ? size : position) - start, size);
                throw;
            }
        };
        stream ? attempt(step) : void();
    }

    /// Read everything: a read fails, or gives the right bytes.
    void readAll(const fsp::ByteStreamPtr& stream)
    {
        const auto step = [&]
        {
            std::string bytes(content.size() + 1, '?');
            stream->seek(0, std::ios_base::beg);
            const auto count = stream->read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            EXPECT_EQ(bytes.substr(0, static_cast<std::size_t>(std::max<std::streamsize>(count, 0))), content);
        };
        stream ? attempt(step) : void();
    }

    /// Close; a script that gave up leaves the stream to its destructor.
    void close(const fsp::ByteStreamPtr& stream)
    {
        stream ? attempt([&] { stream->close(); }) : void();
    }

    const fsp::IProvider& provider;
    const std::size_t unit; // a part has 16 of it
    const bool givesUp;
    std::string content;    // of the file, as the caller believes it to be
    std::vector<int> codes; // of the steps that failed
};

void newFile(Script& script)
{
    script.content.clear();
    const auto stream = script.open({fsp::ByteStreamReadAccess::Allowed});
    for (std::size_t i = 0; i < 5; ++i)
    {
        script.write(stream, Script::theEnd, numberedBytes(9 * script.unit, i));
    }
    script.readAll(stream);
    script.close(stream);
}

void patchGapAppend(Script& script)
{
    const auto stream = script.open(editing);
    const auto tail = script.open(appending);
    script.write(stream, 10 * script.unit, numberedBytes(20 * script.unit, 100));                        // two parts
    script.write(stream, script.content.size() + 40 * script.unit, numberedBytes(3 * script.unit, 200)); // a gap of two
    script.write(tail, Script::theEnd, numberedBytes(20 * script.unit, 50));
    script.readAll(stream);
    script.close(tail);
    script.close(stream);
}

void patchOnly(Script& script)
{
    const auto stream = script.open(editing);
    script.write(stream, 3 * script.unit, numberedBytes(2 * script.unit, 100));
    script.close(stream);
}

void transfer(Script& script, void (fsp::IProvider::*operation)(
                                  const fsp::StorageIRI&, const fsp::StorageIRI&, const fsp::ReplacementPolicy&) const)
{
    script.attempt(
        [&] { (script.provider.*operation)(iriOf("source"), iriOf("file"), fsp::ReplacementPolicy::Replace); });
}

void readOnly(Script& script)
{
    const auto stream = script.open(editing);
    script.readAll(stream);
    script.close(stream);
}

/// What the provider uses.
enum class Stack
{
    Memory,
    Local,       // the durable store
    WorkingAhead // clients that prefetch and upload on threads of their own, over the store in memory
};

struct Scenario
{
    const char* name;
    std::vector<std::size_t> parts;  // of the file before, in units; empty: it does not exist
    std::vector<std::size_t> source; // of what is transferred, likewise
    std::function<void(Script&)> run;
    Stack stack = Stack::Memory;
};

const std::vector<Scenario> scenarios{
    {"newFileOfManyParts", {}, {}, newFile},
    {"fileOfManyParts", {16, 10, 12}, {}, patchGapAppend},
    {"newSmallFile", {}, {}, patchOnly},
    {"smallFile", {7}, {}, patchOnly},
    {"move", {7}, {16, 16, 13}, [](Script& script) { transfer(script, &fsp::IProvider::moveFile); }},
    {"moveOfTwoParts", {7}, {16, 7}, [](Script& script) { transfer(script, &fsp::IProvider::moveFile); }},
    {"copy", {20}, {16, 16, 13}, [](Script& script) { transfer(script, &fsp::IProvider::copyFile); }},
};

class FaultSweepTest : public FileTest, public testing::WithParamInterface<Scenario>
{
protected:
    FaultSweepTest()
        : FileTest(GetParam().stack == Stack::Local ? makeLocalStore() : nullptr)
    {
    }

    struct Run
    {
        std::vector<Operation> calls;
        std::vector<Operation> struck;
        std::set<std::thread::id> threads; // that made the calls
        bool failed = false;
    };

    struct Conditions
    {
        std::function<bool(std::size_t call, Operation)> strikes = [](auto...) { return false; };
        bool givesUp = false;
        std::size_t unit = 1;
        std::size_t lateCall = 0; // its answer is lost; 0: none
    };

    /// Make the clients that work ahead, with memory for two parts in each direction.
    CloudClientSharedPtr makeWorkingAhead() const
    {
        return std::make_shared<clients::ReadAheadClient>(std::make_shared<clients::PipelinedUploadClient>(faults,
                                                              clients::PipelineSettings{.transfers = 3, .memory = 40}),
            clients::ReadAheadSettings{.transfers = 2, .memory = 40});
    }

    /// Run the scenario on fresh objects and look at what it leaves.
    Run runOnce(const Conditions& conditions)
    {
        const Scenario& scenario = GetParam();
        const std::size_t unit = conditions.unit;
        setSizes(16 * unit, 0);
        const auto prepare = [&](const char* key, std::vector<std::size_t> sizes, std::size_t first) -> Contents
        {
            faults->inner().deleteObject(key);
            if (sizes.empty())
            {
                return {};
            }
            std::for_each(sizes.begin(), sizes.end(), [&](std::size_t& size) { size *= unit; });
            const auto total = std::accumulate(sizes.begin(), sizes.end(), std::size_t{0});
            putParts(key, numberedBytes(total, first), sizes);
            return stored(key);
        };
        const Contents old = prepare("file", scenario.parts, 0);
        const Contents source = prepare("source", scenario.source, 77);
        Run run;
        CloudClientSharedPtr client = GetParam().stack == Stack::WorkingAhead ? makeWorkingAhead() : faults;
        auto used = buildCloudProvider(client, FolderPolicy::MarkerObjects, true);
        Script script{*used, unit, conditions.givesUp, old.value_or(""), {}};
        std::mutex mutex; // guards `run`: calls may come from several threads
        faults->setHook(
            [&](Operation operation, const std::string&)
            {
                const std::lock_guard lock(mutex);
                run.threads.insert(std::this_thread::get_id());
                run.calls.push_back(operation);
                const bool strikes = conditions.strikes(run.calls.size(), operation);
                if (strikes || run.calls.size() == conditions.lateCall)
                {
                    run.struck.push_back(operation);
                }
                if (strikes)
                {
                    throw UnknownErrorException("struck");
                }
            });
        if (conditions.lateCall != 0)
        {
            faults->inject({.call = conditions.lateCall, .moment = Fault::Moment::AfterEffect});
        }
        scenario.run(script);
        used.reset();
        EXPECT_EQ(client.use_count(), client == faults ? 3 : 1) << "somebody keeps the clients";
        client.reset(); // ends their threads
        faults->setHook({});
        faults->clearFaults();
        run.failed = !script.codes.empty();

        const Contents file = stored("file");
        const Contents left = stored("source");
        const bool moves = std::string_view(scenario.name).starts_with("move");
        if (source)
        {
            script.content = *source;
            // What a transfer had copied when it failed may stand; the source goes only when all of it does.
            EXPECT_TRUE(file == old || (file && source->starts_with(*file))) << testing::PrintToString(file);
            EXPECT_TRUE(left == source || (moves && file == source)) << "the source is lost";
        }
        else
        {
            EXPECT_THAT(file, testing::AnyOf(old, script.content)) << "neither the old object nor the new one";
        }
        // The one exception: a flush that cannot open its upload ends without a word. A transfer knows better.
        const bool mayBeQuiet =
            !source && std::count(run.struck.begin(), run.struck.end(), Operation::CreateMultipartUpload) != 0;
        if (!run.failed && !mayBeQuiet)
        {
            EXPECT_EQ(file, script.content) << "nobody was told that it failed";
            EXPECT_EQ(left.has_value(), source.has_value() && !moves);
        }
        EXPECT_THAT(script.codes, testing::Each(fsp::ErrorCode::Unknown.value()));
        EXPECT_TRUE(temp.isEmpty()) << "temporary files are left";
        return run;
    }

    const Watchdog watchdog{GetParam().name};
};

TEST_P(FaultSweepTest, SurvivesTheFailureOfEveryCall)
{
    for (const char* const mode : {"carrying on", "giving up", "losing the answer"})
    {
        const bool late = mode == std::string_view("losing the answer");
        bool struck = true;
        for (std::size_t n = 1; struck; ++n)
        {
            SCOPED_TRACE("call " + std::to_string(n) + ", " + mode);
            const Run run = runOnce({.strikes = [&](std::size_t call, Operation) { return call == n && !late; },
                .givesUp = mode == std::string_view("giving up"),
                .lateCall = late ? n : 0});
            struck = !run.struck.empty();
            EXPECT_TRUE(struck || !run.failed) << "failed untouched";
            // Nobody but the store knows of an upload whose identifier was lost.
            const bool lost = late && struck && run.struck.front() == Operation::CreateMultipartUpload;
            EXPECT_THAT(openUploads(), testing::SizeIs(lost ? 1 : 0));
            for (const clients::PendingUpload& upload : openUploads())
            {
                faults->inner().abortMultipartUpload(upload.key, upload.uploadId);
            }
            ASSERT_FALSE(HasFailure()) << testing::PrintToString(run.calls);
        }
    }
}

TEST_P(FaultSweepTest, SurvivesAnOperationThatFailsForAWhile)
{
    const Run untouched = runOnce({});
    const std::vector<Operation>& calls = untouched.calls;
    // A range may be fetched by its reader before a thread gets to it; parts are always sent by threads.
    EXPECT_TRUE(GetParam().stack != Stack::WorkingAhead || untouched.threads.size() > 1 ||
                std::count(calls.begin(), calls.end(), Operation::CreateMultipartUpload) == 0);
    for (const Operation failing : std::set<Operation>(calls.begin(), calls.end()))
    {
        for (std::size_t until = 1; until <= 2 * calls.size(); ++until)
        {
            SCOPED_TRACE("every " + std::string(name(failing)) + " up to call " + std::to_string(until));
            runOnce({.strikes = [&](std::size_t call, Operation operation)
                     { return operation == failing && call <= until; }});
            EXPECT_THAT(openUploads(), testing::IsEmpty());
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_P(FaultSweepTest, TakesNoShortDownloadForAPart)
{
    bool failed = true;
    for (std::uint64_t limit = 0; failed; ++limit)
    {
        SCOPED_TRACE("at most " + std::to_string(limit) + " bytes a download");
        faults->setDownloadLimit(limit);
        const Run run = runOnce({});
        failed = run.failed;
        const auto downloads = std::count(run.calls.begin(), run.calls.end(), Operation::GetObjectRange);
        EXPECT_TRUE(failed || downloads == 0 || limit >= 7) << "the smallest part of all has seven bytes";
        EXPECT_THAT(openUploads(), testing::IsEmpty());
        ASSERT_FALSE(HasFailure());
    }
}

using FullDiskTest = FaultSweepTest; // not over the local store, which a child process must not inherit

TEST_P(FullDiskTest, LeavesTheOldObjectOrTheNewOne)
{
    constexpr int passed = 40;
    constexpr int refused = 41;
    const auto runOnDiskOf = [&](unsigned pages) // in a child, which alone sees the small disk
    {
        alarm(60); // its watchdog
        const std::string size = "size=" + std::to_string(pages * 4096);
        if (unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWUSER | CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", temp.path(), "tmpfs", 0, size.c_str()) != 0)
        {
            return refused;
        }
        const bool failed = runOnce({.unit = 1024}).failed;
        EXPECT_THAT(openUploads(), testing::IsEmpty());
        std::cout << std::flush;
        return HasFailure() ? 1 : failed ? 0 : passed;
    };
    unsigned pages = 0;
    for (int status = 0; status == 0;)
    {
        const pid_t child = fork();
        ++pages;
        if (child == 0)
        {
            _exit(runOnDiskOf(pages));
        }
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status) << " on a disk of " << pages
                                       << " pages";
        ASSERT_NE(WEXITSTATUS(status), 1) << "on a disk of " << pages << " pages";
        if (WEXITSTATUS(status) == refused)
        {
            GTEST_SKIP() << "no right to mount a small disk";
        }
    }
    EXPECT_GT(pages, 1U) << "one page is enough for everything";
}

std::string scenarioName(const testing::TestParamInfo<Scenario>& row)
{
    return row.param.name;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FaultSweepTest, testing::ValuesIn(scenarios), scenarioName);
INSTANTIATE_TEST_SUITE_P(Scenarios, FullDiskTest, testing::ValuesIn(scenarios), scenarioName);
INSTANTIATE_TEST_SUITE_P(Local, FaultSweepTest,
    testing::Values(Scenario{"fileOfManyParts", {16, 10, 12}, {}, patchGapAppend, Stack::Local},
        Scenario{
            "move", {7}, {16, 7}, [](Script& script) { transfer(script, &fsp::IProvider::moveFile); }, Stack::Local}),
    scenarioName);
INSTANTIATE_TEST_SUITE_P(WorkingAhead, FaultSweepTest,
    testing::Values(Scenario{"newFileOfManyParts", {}, {}, newFile, Stack::WorkingAhead},
        Scenario{"fileOfManyParts", {16, 10, 12}, {}, patchGapAppend, Stack::WorkingAhead},
        Scenario{"fileThatIsRead", {16, 16, 16, 16, 16, 9}, {}, readOnly, Stack::WorkingAhead},
        Scenario{"move", {7}, {16, 16, 13}, [](Script& script) { transfer(script, &fsp::IProvider::moveFile); },
            Stack::WorkingAhead}),
    scenarioName);

using QuietFlushTest = FileTest;

TEST_F(QuietFlushTest, AFlushThatCannotOpenItsUploadSaysNothing)
{
    setSizes(16, 0);
    const std::string old = numberedBytes(48);
    putParts("file", old, {16, 16, 16});
    faults->inject({.operation = Operation::CreateMultipartUpload});
    const auto stream = provider->openStream(iriOf("file"), editing);
    EXPECT_EQ(write(*stream, "news"), 4);
    EXPECT_NO_THROW(stream->close());
    EXPECT_EQ(stored("file"), old);
}

} // namespace

} // namespace storage::cloudprovider
