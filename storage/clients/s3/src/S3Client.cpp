#include <storage/clients/s3/S3Client.hpp>

#include "S3Store.hpp"

#include <storage/clients/remote/ContentType.hpp>

#include <algorithm>

namespace storage::clients
{

namespace
{

ObjectMetadata typeByName(const std::string& key)
{
    const std::string type = contentTypeOf(key);
    return type.empty() ? ObjectMetadata() : ObjectMetadata{{"Content-Type", type}};
}

RemoteSettings remoteSettings(const s3::S3Settings& settings)
{
    constexpr std::uint64_t minPartSize = StoreAbilities().minPartSize;
    return {.transfers = settings.transfers,
        .memory = settings.memory,
        .partSize = settings.capabilities.equalParts ? std::max(settings.partSize, minPartSize) : settings.partSize,
        .interrupted = settings.interrupted,
        .newMetadata = settings.newMetadata ? settings.newMetadata : typeByName};
}

} // namespace

S3Client::S3Client(const s3::S3Settings& settings)
    : RemoteClient(std::make_unique<s3::S3Store>(settings), remoteSettings(settings))
{
}

} // namespace storage::clients
