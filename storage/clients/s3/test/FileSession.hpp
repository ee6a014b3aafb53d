#pragma once

#include <storage/clients/decorators/PipelinedUploadClient.hpp>
#include <storage/clients/decorators/ReadAheadClient.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <foundation/storage/provider/ByteStreamFailure.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <cstddef>
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

/// What a host wants with a file.
struct FileSession
{
    fsp::ByteStreamTruncate truncate = fsp::ByteStreamTruncate::Keep;
    bool reads = false; ///< all of it, in small pieces, before writing
    std::size_t offset = 0;
    std::string bytes; ///< to write there

    struct Result
    {
        bool succeeded = true;
        std::string content = {}; ///< what was read before the first failure
    };

    /// A file's content after that.
    std::string appliedTo(std::string content) const
    {
        content.resize(std::max(content.size(), offset + bytes.size()));
        return content.replace(offset, bytes.size(), bytes);
    }

    /// Do it to a file through the provider, down to the close, whatever fails.
    Result run(cloudprovider::CloudClientSharedPtr client, const std::string& key) const
    {
        Result result;
        const auto attempt = [&result](const auto& step)
        {
            try
            {
                step();
            }
            catch (const fsp::ByteStreamFailure&)
            {
                result.succeeded = false;
            }
            catch (const fsp::Exception&)
            {
                result.succeeded = false;
            }
        };
        const auto provider =
            cloudprovider::buildCloudProvider(std::move(client), cloudprovider::FolderPolicy::MarkerObjects, false);
        fsp::ByteStreamPtr stream;
        attempt(
            [&]
            {
                stream = provider->openStream(fsp::StorageIRI::fromUtf8("s3://test/" + key),
                    {fsp::ByteStreamReadAccess::Allowed, fsp::ByteStreamCreate::IfMissing, truncate,
                        fsp::ByteStreamWritePosition::AtOffset});
            });
        if (stream)
        {
            attempt(
                [&]
                {
                    std::string some(reads ? 64 << 10 : 0, '\0');
                    for (std::streamsize count = 0; (count = stream->read(some.data(), std::ssize(some))) > 0;)
                    {
                        result.content.append(some, 0, static_cast<std::size_t>(count));
                    }
                });
            attempt(
                [&]
                {
                    stream->seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
                    stream->write(bytes.data(), std::ssize(bytes));
                });
            attempt([&] { stream->close(); });
        }
        return result;
    }
};

} // namespace storage::clients::s3::test
