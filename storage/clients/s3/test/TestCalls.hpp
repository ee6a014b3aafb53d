#pragma once

#include "LoopbackServer.hpp"
#include "S3Store.hpp"

#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <memory>
#include <string>
#include <utility>

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

inline std::string putObject(RemoteStore& store, const std::string& key, const std::string& content,
    const WriteCondition& condition = {}, const ObjectMetadata& metadata = {})
{
    TextBody body(content);
    return store.putObject(key, body, condition, {metadata, key});
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

} // namespace storage::clients::s3::test
