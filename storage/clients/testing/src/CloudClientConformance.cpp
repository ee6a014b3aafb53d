#include <storage/clients/testing/CloudClientConformance.hpp>

#include "Cases.hpp"

#include <algorithm>
#include <future>
#include <latch>
#include <numeric>

namespace storage::clients::conformance
{

using namespace cloudprovider;

std::ostream& operator<<(std::ostream& out, const Subject& subject)
{
    return out << subject.name;
}

CloudClientConformance::CloudClientConformance()
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

PartInfo CloudClientConformance::copy(
    const std::string& key, const std::string& uploadId, std::size_t index, const PartInfo& source)
{
    PartInfo part{index, source.Offset, source.Size, source.Tag};
    part.Tag = client().copyPart(key, uploadId, part);
    return part;
}

testing::AssertionResult CloudClientConformance::haveSizes(
    const std::vector<PartInfo>& parts, const std::vector<std::size_t>& sizes) const
{
    const auto sum = [](const auto& numbers)
    { return std::accumulate(numbers.begin(), numbers.end(), std::size_t{0}); };
    std::vector<std::size_t> found;
    bool wellFormed = true;
    for (const PartInfo& part : parts)
    {
        wellFormed &= part.Index == found.size() && part.Offset == sum(found) && !part.Tag.empty();
        found.push_back(part.Size);
    }
    const bool sameSizes = m_capabilities.noPartBoundaries.empty() ? found == sizes : sum(found) == sum(sizes);
    return (wellFormed && sameSizes ? testing::AssertionSuccess() : testing::AssertionFailure())
           << "expected adjacent parts with tags, of " << testing::PrintToString(sizes) << " bytes, got "
           << testing::PrintToString(parts);
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
