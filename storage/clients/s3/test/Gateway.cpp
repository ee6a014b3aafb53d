#include "Gateway.hpp"

#include "protocol/Requester.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <sstream>

namespace storage::clients::s3::test
{

bool GatewayBucket::isAvailable()
{
    return std::getenv("CLOUDFS_TEST_S3_ENDPOINT") != nullptr;
}

S3Settings GatewayBucket::gatewaySettings()
{
    return parseS3Url(std::string("s3://") + std::getenv("CLOUDFS_TEST_S3_BUCKET") +
                      "?path-style=1&endpoint=" + std::getenv("CLOUDFS_TEST_S3_ENDPOINT"));
}

GatewayBucket::GatewayBucket()
    : m_settings(gatewaySettings())
{
    static std::atomic<unsigned> count = 0;
    m_settings.bucket = "test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
    Requester(m_settings).send({Operation::PutObject, "", "PUT"});
}

GatewayBucket::~GatewayBucket()
{
    try
    {
        S3Client client(m_settings);
        std::string token;
        do
        {
            for (const auto& entry : client.listObjects("", token, {}))
            {
                client.deleteObject(entry.key);
            }
        } while (!token.empty());
        for (const PendingUpload& upload : client.pendingUploads())
        {
            client.abortMultipartUpload(upload.key, upload.uploadId);
        }
        Requester(m_settings).send({Operation::DeleteObject, "", "DELETE"});
    }
    catch (const cloudprovider::CloudException& exception)
    {
        ADD_FAILURE() << exception.what() << ": " << exception.detail().value_or("");
    }
}

void put(cloudprovider::CloudClient& client, const std::string& key, const std::string& content)
{
    std::istringstream stream(content);
    client.putObject(key, stream, content.size());
}

std::optional<std::string> get(cloudprovider::CloudClient& client, const std::string& key)
{
    std::ostringstream stream;
    if (!client.getObjectInfo(key).exists)
    {
        return std::nullopt;
    }
    client.getObjectRange(key, stream, 0, 0);
    return stream.str();
}

} // namespace storage::clients::s3::test
