#pragma once

#include "LoopbackServer.hpp"

#include <storage/clients/s3/S3Settings.hpp>
#include <storage/clients/testing/ClientCalls.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace storage::clients::s3::test
{

/// The settings for a bucket at a server of the test.
inline S3Settings settingsFor(const clients::test::LoopbackServer& server,
    std::shared_ptr<CredentialsSource> credentials = anonymousCredentials())
{
    return {.bucket = "bucket",
        .endpoint = server.url(),
        .region = "us-east-1",
        .pathStyle = true,
        .credentials = std::move(credentials)};
}

inline bool isCompletion(const boost::beast::http::request_header<>& request)
{
    return request.method() == boost::beast::http::verb::post &&
           request.target().find("uploadId=") != boost::beast::string_view::npos;
}

/// What an exception of a client says.
inline std::string textOf(const cloudprovider::CloudException& exception)
{
    return exception.what() + (": " + exception.detail().value_or(""));
}

/// What the CloudException that a call throws says; empty when the call returns.
template <typename Call>
std::string failureOf(const Call& call)
{
    try
    {
        call();
        return {};
    }
    catch (const cloudprovider::CloudException& exception)
    {
        return textOf(exception);
    }
}

/// An upload that is ready to be completed.
struct PreparedUpload
{
    std::string id;
    std::vector<cloudprovider::PartInfo> parts;

    void complete(cloudprovider::CloudClient& client, const std::string& key) const
    {
        client.completeMultipartUpload(key, id, parts);
    }
};

/// Replace bytes of an object as the provider does it with a file: upload the part that they are in, copy the others.
/// @param content  gets the bytes of the whole object, which is read first; null: only that part is read
inline PreparedUpload preparePatch(cloudprovider::CloudClient& client, const std::string& key, std::size_t offset,
    const std::string& bytes, std::string* content = nullptr)
{
    PreparedUpload patch{"", client.getObjectParts(key)};
    const auto read = [&](const cloudprovider::PartInfo& part)
    { return part.Size == 0 ? "" : conformance::get(client, key, part.Offset, part.Offset + part.Size - 1); };
    for (std::size_t i = 0; content != nullptr && i < patch.parts.size(); ++i)
    {
        *content += read(patch.parts[i]);
    }
    patch.id = client.createMultipartUpload(key, patch.parts.front().Tag);
    for (cloudprovider::PartInfo& part : patch.parts)
    {
        if (offset < part.Offset || offset >= part.Offset + part.Size)
        {
            part.Tag = client.copyPart(key, patch.id, part);
            continue;
        }
        std::string changed = read(part);
        changed.replace(offset - part.Offset, bytes.size(), bytes);
        part = conformance::uploadPart(client, key, patch.id, part.Index, changed);
    }
    return patch;
}

} // namespace storage::clients::s3::test
