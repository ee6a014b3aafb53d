#pragma once

#include <storage/clients/testing/ClientCalls.hpp>
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
#include <vector>

namespace storage::clients::conformance
{

/// What a store cannot do. Each text is the reason; an empty one means that the store can.
///
/// A client must do everything else that the suite checks, every time: no flag excuses a case that fails sometimes.
struct Capabilities
{
    std::size_t minPartSize = 1;      ///< minimum size in bytes of every part but the last
    std::string noStaleCopyDetection; ///< why copyPart() does not notice that the object has changed
    std::string noSubrangeCopies;     ///< why copyPart() copies only whole parts, as getObjectParts() returned them
    std::string noPartBoundaries;     ///< why getObjectParts() returns other parts than were uploaded, at least one
    std::string noUnlistedParts;      ///< why completeMultipartUpload() must list every part that was sent
    std::string noSharedUploads;     ///< why only the instance that began an upload can use it, also once it has a part
    std::string noVersionPins;       ///< why a file that was opened may be read or patched in another version
    std::string noBackslashes = {};  ///< why keys with a backslash are refused
    std::string noTrailingDots = {}; ///< why keys with a segment that ends with a dot are refused
    std::string noByteOrder = {};    ///< why keys are listed in an order other than that of their bytes
    std::string noCreationBesideUploads = {}; ///< why creating an object may be refused while it is being uploaded
    std::size_t maxKeyBytes = 1'024;
};

/// One store, empty when the harness is made. Destroying the harness removes the store.
class Harness
{
public:
    virtual ~Harness() = default;

    /// The client under test; the same instance at each call.
    virtual cloudprovider::CloudClient& client() = 0;

    /// Make another client of the same store, as another process would. Null: a store has only one client.
    virtual cloudprovider::CloudClientSharedPtr openAnother() { return nullptr; }

    /// Make a client that can store nothing: every part or every completion fails. Null: this is not possible.
    virtual cloudprovider::CloudClientSharedPtr openReadOnly() { return nullptr; }

    virtual Capabilities capabilities() const { return {}; }
};

/// A client under test.
struct Subject
{
    const char* name;                                      ///< for messages
    std::function<std::unique_ptr<Harness>()> makeHarness; ///< null result: no store is available, skip the case
};

/// Print the name. Not inline: every instantiation refers to it, and so links the cases.
std::ostream& operator<<(std::ostream& out, const Subject& subject);

/// The suite that every CloudClient must pass. A client joins with one line beside its harness:
///
///     CLOUD_CLIENT_CONFORMANCE(Memory, [] { return std::make_unique<MemoryHarness>(); });
///
/// Each case gets a harness of its own. Random cases print their seed; repeat one with --gtest_random_seed=SEED.
class CloudClientConformance : public ::testing::TestWithParam<Subject>
{
protected:
    CloudClientConformance();
    void SetUp() override;

    const Capabilities& capabilities() const { return m_capabilities; }
    cloudprovider::CloudClient& client() { return m_harness->client(); }
    cloudprovider::CloudClientSharedPtr openAnother() { return m_harness->openAnother(); }
    cloudprovider::CloudClientSharedPtr openReadOnly() { return m_harness->openReadOnly(); }

    /// Make a random generator. Every failure after this call also prints the seed.
    std::mt19937 randomNumbers();

    /// Make content of every byte value, different for each seed.
    static std::string content(std::size_t size, unsigned seed);

    /// Make content that is large enough for a part that is not the last.
    std::string partContent(unsigned seed) const;

    // The functions of ClientCalls.hpp for the client under test.
    void put(const std::string& key, const std::string& bytes) { conformance::put(client(), key, bytes); }
    std::string get(const std::string& key, std::uint64_t first = 0, std::uint64_t last = 0)
    {
        return conformance::get(client(), key, first, last);
    }
    cloudprovider::PartInfo upload(
        const std::string& key, const std::string& uploadId, std::size_t index, const std::string& bytes)
    {
        return uploadPart(client(), key, uploadId, index, bytes);
    }
    std::vector<std::string> keys(const std::string& prefix = "") { return conformance::keys(client(), prefix); }

    /// Copy one part to the index. @return its record for completeMultipartUpload()
    cloudprovider::PartInfo copy(
        const std::string& key, const std::string& uploadId, std::size_t index, const cloudprovider::PartInfo& source);

    /// Expect that a copy fails: copyPart() throws, or completeMultipartUpload() does if the client copies only then. A
    /// failed completion leaves the upload open.
    template <typename Failure>
    void expectNoCopy(const std::string& key, const std::string& uploadId, std::size_t index,
        const cloudprovider::PartInfo& source, const char* why)
    {
        EXPECT_THROW(client().completeMultipartUpload(key, uploadId, {copy(key, uploadId, index, source)}), Failure)
            << why;
    }

    /// Whether parts of an object are well-formed and have these sizes. Where a client does not keep boundaries, only
    /// the sum of the sizes counts.
    ::testing::AssertionResult haveSizes(
        const std::vector<cloudprovider::PartInfo>& parts, const std::vector<std::size_t>& sizes) const;

    /// Run task(0) … task(count - 1) in parallel. An exception of a task fails the case.
    static void atOnce(std::size_t count, const std::function<void(std::size_t)>& task);

private:
    const std::unique_ptr<Harness> m_harness = GetParam().makeHarness();
    const Capabilities m_capabilities = m_harness ? m_harness->capabilities() : Capabilities();
    std::unique_ptr<::testing::ScopedTrace> m_seedTrace;
};

} // namespace storage::clients::conformance

#define CLOUD_CLIENT_CONFORMANCE(Name, ...)                                                                            \
    using ::storage::clients::conformance::CloudClientConformance;                                                     \
    INSTANTIATE_TEST_SUITE_P(                                                                                          \
        Name, CloudClientConformance, ::testing::Values(::storage::clients::conformance::Subject{#Name, __VA_ARGS__}))
