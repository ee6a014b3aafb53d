#include "TestStore.hpp"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <random>
#include <sstream>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::test
{

namespace
{

constexpr std::array<const char*, 4> names{"a", "b", "folder/c", "folder/d"};
constexpr std::uint64_t nothing = 0; // as a version: there is no object

// What a child tells: it is about to make this the version of an object, or it has.
struct Step
{
    std::size_t name;
    std::uint64_t version;
    bool done;
};

// Make one version in one of the ways that there are.
void makeVersion(LocalClient& client, const std::string& key, std::uint64_t version, std::mt19937& random)
{
    if (version == nothing)
    {
        client.deleteObject(key);
        return;
    }
    const std::string whole = content(version, 100 + random() % 200'000);
    if (random() % 2 == 0)
    {
        put(client, key, whole);
        return;
    }
    // Put twice, the second time by taking over what stands there, so that the bytes are the version's all along.
    const std::size_t middle = random() % whole.size();
    putParts(client, key, {whole.substr(0, middle) + whole[middle], whole.substr(middle + 1)});
    const std::string upload = client.createMultipartUpload(key, "");
    std::vector<cloudprovider::PartInfo> parts = client.getObjectParts(key);
    for (cloudprovider::PartInfo& part : parts)
    {
        part.Tag = client.copyPart(key, upload, part);
    }
    client.completeMultipartUpload(key, upload, parts);
}

// Change objects until killed.
void changeForEver(const std::filesystem::path& store, int reports, unsigned round)
{
    std::mt19937 random(round);
    LocalClient client(store);
    for (std::uint64_t version = round * 1'000'000;; ++version)
    {
        Step step{random() % names.size(), random() % 5 == 0 ? nothing : version, false};
        ASSERT_EQ(::write(reports, &step, sizeof(step)), static_cast<ssize_t>(sizeof(step)));
        makeVersion(client, names[step.name], step.version, random);
        step.done = true;
        ASSERT_EQ(::write(reports, &step, sizeof(step)), static_cast<ssize_t>(sizeof(step)));
    }
}

std::uint64_t versionNow(LocalClient& client, const std::string& key)
{
    if (!client.getObjectInfo(key).exists)
    {
        return nothing;
    }
    const std::string found = get(client, key);
    EXPECT_EQ(client.getObjectInfo(key).size, found.size());
    return versionOf(found);
}

} // namespace

TEST(CrashTest, EveryObjectIsAWholeVersionAndNothingElseIsLeft)
{
    const TestFolder folder;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::array<std::uint64_t, names.size()> versions{};
    for (unsigned round = 1; round <= 40 && !HasFailure(); ++round)
    {
        int reports[2] = {};
        ASSERT_EQ(::pipe(reports), 0);
        const int child = startProcess([&] { changeForEver(folder.store(), reports[1], round); });
        ::close(reports[1]);

        std::array<std::uint64_t, names.size()> allowed = versions;
        const auto take = [&]
        {
            Step step = {};
            if (::read(reports[0], &step, sizeof(step)) != static_cast<ssize_t>(sizeof(step)))
            {
                return false;
            }
            (step.done ? versions : allowed)[step.name] = step.version;
            return true;
        };
        for (auto steps = 1 + random() % 20; steps > 0; --steps)
        {
            ASSERT_TRUE(take()) << "the child ended by itself";
        }
        // Orders nothing: it spreads the instants over the next steps, which take up to some milliseconds.
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        while (take())
        {
        }
        ::close(reports[0]);

        {
            LocalClient client(folder.store());
            for (std::size_t i = 0; i < names.size(); ++i)
            {
                const std::uint64_t now = versionNow(client, names[i]);
                EXPECT_TRUE(now == versions[i] || now == allowed[i])
                    << names[i] << " has version " << now << " instead of " << versions[i] << " or " << allowed[i];
                versions[i] = now;
            }
        }
        checkStore(folder.store());
        EXPECT_EQ(files(folder.store() / "sessions"), std::vector<std::string>());
    }
}

namespace
{

// Content that does something when half of it has been taken.
class HalfwayBuffer : public std::stringbuf
{
public:
    HalfwayBuffer(std::string content, std::function<void()> halfway)
        : m_content(std::move(content))
        , m_halfway(std::move(halfway))
    {
        setg(m_content.data(), m_content.data(), m_content.data() + m_content.size() / 2);
    }

protected:
    int_type underflow() override
    {
        char* const end = m_content.data() + m_content.size();
        if (egptr() == end)
        {
            return traits_type::eof();
        }
        m_halfway();
        setg(m_content.data(), egptr(), end);
        return traits_type::to_int_type(*gptr());
    }

private:
    std::string m_content;
    std::function<void()> m_halfway;
};

} // namespace

TEST(CrashTest, CollectsAfterTheDeadWhileTheLivingWrite)
{
    const TestFolder folder;
    const std::filesystem::path store = folder.store();
    const std::string large = content(1, 3'000'000);
    LocalClient living(store);
    HalfwayBuffer buffer(large,
        [&]
        {
            const int dying = startProcess(
                [&]
                {
                    LocalClient client(store);
                    HalfwayBuffer fatal(large, [] { ::raise(SIGKILL); });
                    std::istream in(&fatal);
                    client.putObject("dying", in, large.size());
                });
            ASSERT_EQ(::waitpid(dying, nullptr, 0), dying);
            EXPECT_EQ(files(store / "incoming").size(), 2U);
            ASSERT_EQ(files(store / "sessions").size(), 2U);

            // As if the dead one had got further: its file has its place, and the change that names it is missing.
            for (const std::string& session : files(store / "sessions"))
            {
                std::filesystem::copy_file(store / "index.sqlite", store / "contents" / ("7-" + session));
            }
            LocalClient collecting(store);
            EXPECT_EQ(files(store / "incoming").size(), 1U);
            EXPECT_EQ(files(store / "sessions").size(), 2U) << "those of the living and of the collecting client";
            EXPECT_EQ(files(store / "contents").size(), 0U);
        });
    std::istream in(&buffer);
    living.putObject("living", in, large.size());
    EXPECT_EQ(versionOf(get(living, "living")), 1U);
    EXPECT_EQ(keys(living), std::vector<std::string>{"living"});
    checkStore(store);
}

} // namespace storage::clients::test
