#pragma once

#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// What a VastStore has done.
struct Traffic
{
    std::atomic<std::uint64_t> requests = 0;
    std::atomic<std::uint64_t> copies = 0;   ///< of these
    std::atomic<std::uint64_t> sent = 0;     ///< bytes of bodies
    std::atomic<std::uint64_t> received = 0; ///< bytes of objects
};

/// A distant store with the limits of S3 and one object of zeros, of any size. It throws away what is sent.
class VastStore : public storage::clients::RemoteStore
{
public:
    using ByteRange = storage::clients::ByteRange;
    using Version = storage::clients::Version;
    using StoredObject = storage::clients::StoredObject;
    using NumberedTag = storage::clients::NumberedTag;
    using RequestBody = storage::clients::RequestBody;
    using WriteCondition = storage::clients::WriteCondition;
    using ObjectMetadata = storage::clients::ObjectMetadata;
    using WrittenMetadata = storage::clients::WrittenMetadata;

    /// @param size  bytes of the object; 0: there is none
    VastStore(std::uint64_t size, std::shared_ptr<Traffic> traffic)
        : m_size(size)
        , m_traffic(std::move(traffic))
    {
    }

    storage::clients::StoreAbilities abilities(const std::string& /*key*/) const override
    {
        return {.conditionalTakes = true,
            .conditionalWrites = true,
            .conditionalCreation = true,
            .conditionalCompletion = true};
    }

    std::optional<StoredObject> findObject(const std::string& /*key*/) override
    {
        ++m_traffic->requests;
        return m_size == 0 ? std::nullopt : std::optional(StoredObject{version(), {}});
    }

    Version getObject(const std::string& /*key*/, const std::optional<ByteRange>& range,
        const std::optional<Version>& /*version*/, const storage::clients::ContentReceiver& receiver) override
    {
        static const std::string zeros(1 << 20, '\0');
        ++m_traffic->requests;
        if (m_size == 0)
        {
            throw storage::cloudprovider::ResourceNotFoundException("there is no object");
        }
        const std::uint64_t begin = range ? std::min(range->offset, m_size) : 0;
        std::uint64_t left = range ? std::min(range->size, m_size - begin) : m_size;
        m_traffic->received += left;
        for (; left > 0; left -= std::min<std::uint64_t>(left, zeros.size()))
        {
            receiver(version(), std::string_view(zeros).substr(0, left));
        }
        return version();
    }

    std::string putObject(const std::string& /*key*/, RequestBody& body, const WriteCondition& /*condition*/,
        const WrittenMetadata& /*metadata*/) override
    {
        return take(body);
    }

    std::string createUpload(const std::string& /*key*/, const WrittenMetadata& /*metadata*/) override
    {
        ++m_traffic->requests;
        return "upload";
    }

    std::string uploadPart(
        const std::string& /*key*/, const std::string& /*uploadId*/, std::size_t /*number*/, RequestBody& body) override
    {
        return take(body);
    }

    std::string takePart(const std::string& /*key*/, const std::string& /*uploadId*/, std::size_t /*number*/,
        const storage::clients::CopySource& /*source*/, const ByteRange& /*range*/) override
    {
        ++m_traffic->requests;
        ++m_traffic->copies;
        return "copy";
    }

    std::string completeUpload(const std::string& /*key*/, const std::string& /*uploadId*/,
        const std::vector<NumberedTag>& /*parts*/, const WriteCondition& /*condition*/) override
    {
        ++m_traffic->requests;
        return "new";
    }

    void abortUpload(const std::string& /*key*/, const std::string& /*uploadId*/) override { ++m_traffic->requests; }

    // What no benchmark needs.
    void deleteObject(const std::string& /*key*/, const WriteCondition& /*condition*/) override { refuse(); }
    std::map<std::string, std::exception_ptr> deleteObjects(const std::vector<std::string>& /*keys*/) override
    {
        refuse();
    }
    std::string copyObject(const storage::clients::CopySource& /*source*/, const std::string& /*target*/,
        const WriteCondition& /*condition*/) override
    {
        refuse();
    }
    storage::clients::ListingPage listObjects(const std::string& /*prefix*/, const std::string& /*token*/,
        const storage::cloudprovider::ListOptions& /*options*/) override
    {
        refuse();
    }
    bool isOpen(const std::string& /*key*/, const std::string& /*uploadId*/) override { refuse(); }
    storage::clients::UploadsPage listUploads(const std::string& /*token*/) override { refuse(); }
    bool isMadeOf(const std::string& /*key*/, const StoredObject& /*object*/, RequestBody& /*body*/) override
    {
        refuse();
    }
    bool isMadeOf(const std::string& /*key*/, const StoredObject& /*object*/, const std::string& /*uploadId*/,
        const std::vector<NumberedTag>& /*parts*/) override
    {
        refuse();
    }

private:
    [[noreturn]] static void refuse()
    {
        throw storage::cloudprovider::UnsupportedOperationException("not a request of the benchmarks");
    }

    // As long as an entity tag of S3 is.
    Version version() const { return {"0123456789abcdef0123456789abcdef", m_size, m_metadata}; }

    std::string take(RequestBody& body)
    {
        std::array<char, 65536> bytes{};
        ++m_traffic->requests;
        for (std::size_t count = 0; (count = body.read(bytes.data(), bytes.size())) > 0;)
        {
            m_traffic->sent += count;
        }
        return "tag";
    }

    const std::uint64_t m_size;
    const std::shared_ptr<Traffic> m_traffic;
    const std::shared_ptr<const ObjectMetadata> m_metadata = std::make_shared<ObjectMetadata>();
};
