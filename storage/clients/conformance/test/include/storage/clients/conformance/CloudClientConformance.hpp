#pragma once

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients::conformance
{

/// What a store may do differently. A text says why it cannot; empty: it can. There is nothing here for a store that
/// can at times.
struct Capabilities
{
    std::size_t minPartSize = 1;      ///< bytes that a part which is not the last must have
    std::string noStaleCopyDetection; ///< why copyPart() does not notice that the object has changed
    std::string noSubrangeCopies;     ///< why copyPart() takes whole stored parts only
    std::string noPartBoundaries;     ///< why getObjectParts() does not answer with the parts that were written
    std::string noUnlistedParts;      ///< why every part that was sent must be listed
    std::string noSharedUploads;      ///< why an upload belongs to the instance that began it
};

/// One fresh, empty store and the way to it. Destroying the harness destroys the store.
class Harness
{
public:
    virtual ~Harness() = default;

    /// The instance that is examined; always the same.
    virtual cloudprovider::CloudClient& client() = 0;

    /// A further instance on the same store, as another process would open it; null: there can be only one.
    virtual cloudprovider::CloudClientSharedPtr openAnother() { return nullptr; }

    virtual Capabilities capabilities() const { return {}; }
};

/// A store under examination.
struct Subject
{
    const char* name;
    std::function<std::unique_ptr<Harness>()> makeHarness; ///< null result: the store cannot be had here
};

/// Print the name, which CTest makes a part of the case's name.
std::ostream& operator<<(std::ostream& out, const Subject& subject);

/// What a CloudClient must do, whatever the store. A store joins with one line beside its harness:
///
///     CLOUD_CLIENT_CONFORMANCE(Memory, [] { return std::make_unique<MemoryHarness>(); });
///
/// Random cases print their seed; --gtest_random_seed=SEED repeats it.
class CloudClientConformance : public ::testing::TestWithParam<Subject>
{
public:
    ~CloudClientConformance() override;

protected:
    CloudClientConformance();
    void SetUp() override;

    const Capabilities& capabilities() const { return m_capabilities; }
    cloudprovider::CloudClient& client() { return m_harness->client(); }
    cloudprovider::CloudClientSharedPtr openAnother() { return m_harness->openAnother(); }

    /// A generator, and the seed in the message of every failure that follows.
    std::mt19937 randomNumbers();

    /// Bytes of every value, different for each seed.
    static std::string content(std::size_t size, unsigned seed);

    /// Content of a part that may stand before another.
    std::string partContent(unsigned seed) const;

    void put(const std::string& key, const std::string& content);
    std::string get(const std::string& key, std::uint64_t first = 0, std::uint64_t last = 0);

    /// All pages of a listing. Fails the case when one is longer than asked for or there is no end.
    std::vector<cloudprovider::ObjectEntry> list(
        const std::string& prefix, const cloudprovider::ListOptions& options = {});
    std::vector<std::string> keys(const std::string& prefix = "");

    /// Send one part. @return its record for completion, Offset left at 0
    cloudprovider::PartInfo upload(
        const std::string& key, const std::string& uploadId, std::size_t index, const std::string& content);

    /// Copy one part to the index. @return its record for completion
    cloudprovider::PartInfo copy(
        const std::string& key, const std::string& uploadId, std::size_t index, const cloudprovider::PartInfo& source);

    /// Expect that a copy never becomes a part of an object: its call fails, or, where that only begins the copy, the
    /// completion that lists it does, and leaves the upload open.
    template <typename Failure>
    void expectNoCopy(const std::string& key, const std::string& uploadId, std::size_t index,
        const cloudprovider::PartInfo& source, const char* why)
    {
        EXPECT_THROW(client().completeMultipartUpload(key, uploadId, {copy(key, uploadId, index, source)}), Failure)
            << why;
    }

    /// Run task(0) … task(count - 1) at the same time. What one throws fails the case.
    static void atOnce(std::size_t count, const std::function<void(std::size_t)>& task);

private:
    std::unique_ptr<Harness> m_harness;
    const Capabilities m_capabilities;
    std::unique_ptr<::testing::ScopedTrace> m_seedTrace;
};

} // namespace storage::clients::conformance

#define CLOUD_CLIENT_CONFORMANCE(Name, ...)                                                                            \
    using ::storage::clients::conformance::CloudClientConformance;                                                     \
    INSTANTIATE_TEST_SUITE_P(                                                                                          \
        Name, CloudClientConformance, ::testing::Values(::storage::clients::conformance::Subject{#Name, __VA_ARGS__}))
