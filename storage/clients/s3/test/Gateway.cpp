#include "Gateway.hpp"

#include "protocol/Requester.hpp"

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace storage::clients::s3::test
{

namespace
{

std::string variable(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

void sendToBucket(const S3Settings& settings, const std::string& method)
{
    Requester requester(settings);
    requester.send({Operation::PutObject, "", method});
}

} // namespace

bool GatewayBucket::isAvailable()
{
    return !variable("CLOUDFS_TEST_S3_ENDPOINT").empty();
}

S3Settings GatewayBucket::gatewaySettings()
{
    S3Settings settings;
    settings.bucket = variable("CLOUDFS_TEST_S3_BUCKET");
    settings.endpoint = variable("CLOUDFS_TEST_S3_ENDPOINT");
    settings.region = "us-east-1";
    settings.pathStyle = true;
    settings.credentials = fixedCredentials({variable("AWS_ACCESS_KEY_ID"), variable("AWS_SECRET_ACCESS_KEY"), ""});
    return settings;
}

GatewayBucket::GatewayBucket()
    : m_settings(gatewaySettings())
{
    static std::atomic<unsigned> count = 0;
    m_settings.bucket = "test-" + std::to_string(::getpid()) + "-" + std::to_string(++count);
    sendToBucket(m_settings, "PUT");
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
        sendToBucket(m_settings, "DELETE");
    }
    catch (const cloudprovider::CloudException& exception)
    {
        ADD_FAILURE() << exception.what() << ": " << exception.detail().value_or("");
    }
}

} // namespace storage::clients::s3::test
