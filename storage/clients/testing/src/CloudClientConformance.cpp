#include <storage/clients/testing/CloudClientConformance.hpp>

#include "Cases.hpp"

#include <algorithm>
#include <future>
#include <iterator>
#include <latch>
#include <sstream>
#include <utility>

namespace storage::clients::conformance
{

using namespace cloudprovider;

std::ostream& operator<<(std::ostream& out, const Subject& subject)
{
    return out << subject.name;
}

CloudClientConformance::CloudClientConformance()
    : m_harness(GetParam().makeHarness())
    , m_capabilities(m_harness ? m_harness->capabilities() : Capabilities())
{
    linkConcurrencyCases();
    linkListingCases();
    linkMultipartCases();
    linkObjectCases();
}

void CloudClientConformance::SetUp()
{
    if (!m_harness)
    {
        GTEST_SKIP() << "the store is not available";
    }
}

CloudClientConformance::~CloudClientConformance() = default;

std::mt19937 CloudClientConformance::randomNumbers()
{
    const auto given = static_cast<unsigned>(GTEST_FLAG_GET(random_seed));
    const unsigned seed = given != 0 ? given : std::random_device{}() % 99'999 + 1; // the range of the flag
    m_seedTrace = std::make_unique<::testing::ScopedTrace>(
        __FILE__, __LINE__, "repeat with --gtest_random_seed=" + std::to_string(seed));
    return std::mt19937(seed);
}

std::string CloudClientConformance::content(std::size_t size, unsigned seed)
{
    std::string result(size, '\0');
    std::minstd_rand next(seed + 1);
    std::generate(result.begin(), result.end(), [&] { return static_cast<char>(next() >> 8); });
    return result;
}

std::string CloudClientConformance::partContent(unsigned seed) const
{
    return content(std::max<std::size_t>(m_capabilities.minPartSize, 100) + seed, seed);
}

void CloudClientConformance::put(const std::string& key, const std::string& content)
{
    std::istringstream in(content);
    client().putObject(key, in, content.size());
}

std::string CloudClientConformance::get(const std::string& key, std::uint64_t first, std::uint64_t last)
{
    std::ostringstream out;
    client().getObjectRange(key, out, first, last);
    return std::move(out).str();
}

std::vector<ObjectEntry> CloudClientConformance::list(const std::string& prefix, const ListOptions& options)
{
    constexpr int maxPages = 10'000; // more than any listing here has entries
    std::vector<ObjectEntry> result;
    std::string token;
    for (int page = 0; page < maxPages; ++page)
    {
        auto entries = client().listObjects(prefix, token, options);
        if (options.maxKeys > 0)
        {
            EXPECT_LE(entries.size(), static_cast<std::size_t>(options.maxKeys)) << "entries of page " << page;
        }
        std::move(entries.begin(), entries.end(), std::back_inserter(result));
        if (token.empty())
        {
            return result;
        }
    }
    ADD_FAILURE() << "the listing must end, but after " << maxPages << " pages there is still a token";
    return result;
}

std::vector<std::string> CloudClientConformance::keys(const std::string& prefix)
{
    std::vector<std::string> result;
    for (ObjectEntry& entry : list(prefix))
    {
        result.push_back(std::move(entry.key));
    }
    return result;
}

PartInfo CloudClientConformance::upload(
    const std::string& key, const std::string& uploadId, std::size_t index, const std::string& content)
{
    std::istringstream in(content);
    PartInfo part{index, 0, content.size(), ""};
    part.Tag = client().uploadPart(key, uploadId, part, in);
    return part;
}

PartInfo CloudClientConformance::copy(
    const std::string& key, const std::string& uploadId, std::size_t index, const PartInfo& source)
{
    PartInfo part{index, source.Offset, source.Size, source.Tag};
    part.Tag = client().copyPart(key, uploadId, part);
    return part;
}

void CloudClientConformance::atOnce(std::size_t count, const std::function<void(std::size_t)>& task)
{
    std::latch start(static_cast<std::ptrdiff_t>(count));
    std::vector<std::future<void>> running;
    for (std::size_t i = 0; i < count; ++i)
    {
        running.push_back(std::async(std::launch::async,
            [&task, &start, i]
            {
                start.arrive_and_wait();
                task(i);
            }));
    }
    for (std::future<void>& one : running)
    {
        EXPECT_NO_THROW(
            try { one.get(); } catch (const CloudException& failure) {
                ADD_FAILURE() << failure.what() << ": " << failure.detail().value_or("");
            });
    }
}

} // namespace storage::clients::conformance
