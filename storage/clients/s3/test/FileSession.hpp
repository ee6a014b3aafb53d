#pragma once

#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

namespace storage::clients::s3::test
{

namespace fsp = foundation::storage::provider;

constexpr std::size_t partSize = 5 << 20; // bytes; least that the store takes

/// Makes the provider write in small parts as long as it lives.
///
/// Begins and ends while no other thread runs: it changes the environment.
class SmallParts
{
public:
    SmallParts() { setenv("ZV_CLOUD_PART_SIZE_OVERRIDE", std::to_string(partSize).c_str(), 1); }
    SmallParts(const SmallParts&) = delete;
    SmallParts& operator=(const SmallParts&) = delete;
    ~SmallParts() { unsetenv("ZV_CLOUD_PART_SIZE_OVERRIDE"); }
};

/// What works ahead of its caller, above a client.
enum class Ahead
{
    Nothing,
    Uploads,
    Reads,
    Both ///< as when a store is opened by URL
};

inline const char* name(Ahead ahead)
{
    return std::array{"Bare", "Pipelined", "ReadAhead", "Whole"}.at(static_cast<std::size_t>(ahead));
}

inline bool readsAhead(Ahead ahead)
{
    return ahead == Ahead::Reads || ahead == Ahead::Both;
}

inline cloudprovider::CloudClientSharedPtr workingAhead(
    cloudprovider::CloudClientSharedPtr client, Ahead ahead = Ahead::Both)
{
    if (ahead == Ahead::Uploads || ahead == Ahead::Both)
    {
        client = std::make_shared<PipelinedUploadClient>(std::move(client));
    }
    return readsAhead(ahead) ? std::make_shared<ReadAheadClient>(std::move(client)) : client;
}

/// A host that works on the file "file" of a store through the provider, and may fail at it. One at a time.
class FileSession
{
public:
    explicit FileSession(cloudprovider::CloudClientSharedPtr client)
        : m_provider(
              cloudprovider::buildCloudProvider(std::move(client), cloudprovider::FolderPolicy::MarkerObjects, false))
    {
        cloudprovider::getLogger().setEnabledSeverities(0); // failures are what these tests are full of
    }
    FileSession(const FileSession&) = delete;
    FileSession& operator=(const FileSession&) = delete;
    ~FileSession() { cloudprovider::getLogger().setEnabledSeverities(m_severities); }

    /// Do something unless there is no file open, and note whether it failed.
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

    /// Read from begin to end, little by little.
    ///
    /// @return what came until something failed
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

    /// Whether nothing has failed until now.
    bool succeeded() const noexcept { return m_succeeded; }

private:
    const std::uint32_t m_severities = cloudprovider::getLogger().enabledSeverities();
    const std::shared_ptr<fsp::IProvider> m_provider;
    fsp::ByteStreamPtr m_stream;
    bool m_succeeded = true;
};

} // namespace storage::clients::s3::test
