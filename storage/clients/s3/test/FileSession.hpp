#pragma once

#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

namespace storage::clients::s3::test
{

namespace fsp = foundation::storage::provider;

/// The decorators that openStore() puts around a client, without retries.
inline cloudprovider::CloudClientSharedPtr workingAhead(cloudprovider::CloudClientSharedPtr client)
{
    return std::make_shared<ReadAheadClient>(std::make_shared<PipelinedUploadClient>(std::move(client)));
}

/// A host that works on the file "file" of a store through the provider, and may fail at it. One at a time.
class FileSession
{
public:
    explicit FileSession(cloudprovider::CloudClientSharedPtr client)
        : m_provider(
              cloudprovider::buildCloudProvider(std::move(client), cloudprovider::FolderPolicy::MarkerObjects, false))
    {
        cloudprovider::getLogger().setEnabledSeverities(0); // these tests cause many failures
    }
    FileSession(const FileSession&) = delete;
    FileSession& operator=(const FileSession&) = delete;
    ~FileSession() { cloudprovider::getLogger().setEnabledSeverities(m_severities); }

    void open(fsp::ByteStreamTruncate truncate)
    {
        try
        {
            m_stream = m_provider->openStream(fsp::StorageIRI::fromUtf8("s3://test/file"),
                {fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing, truncate,
                    fsp::ByteStreamWritePosition::AtOffset});
        }
        catch (const fsp::Exception&)
        {
            m_succeeded = false;
        }
    }

    /// Read the whole file in small pieces.
    /// @return what was read before the first failure
    std::string readAll()
    {
        std::string all;
        attempt(
            [&](fsp::ByteStream& stream)
            {
                std::string some(64 << 10, '\0');
                stream.seek(0, std::ios_base::beg);
                for (std::streamsize count = 0; (count = stream.read(some.data(), std::ssize(some))) > 0;)
                {
                    all.append(some, 0, static_cast<std::size_t>(count));
                }
            });
        return all;
    }

    void write(std::size_t offset, const std::string& bytes)
    {
        attempt(
            [&](fsp::ByteStream& stream)
            {
                stream.seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
                stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            });
    }

    void close()
    {
        attempt([](fsp::ByteStream& stream) { stream.close(); });
    }

    /// Whether nothing has failed so far.
    bool succeeded() const noexcept { return m_succeeded; }

private:
    /// Does nothing when the file could not be opened.
    template <typename Step>
    void attempt(Step step)
    {
        try
        {
            m_stream ? step(*m_stream) : void();
        }
        catch (const fsp::ByteStreamFailure&)
        {
            m_succeeded = false;
        }
    }

    const std::uint32_t m_severities = cloudprovider::getLogger().enabledSeverities();
    const std::shared_ptr<fsp::IProvider> m_provider;
    fsp::ByteStreamPtr m_stream;
    bool m_succeeded = true;
};

} // namespace storage::clients::s3::test
