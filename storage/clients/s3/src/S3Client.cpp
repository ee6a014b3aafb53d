#include <storage/clients/s3/S3Client.hpp>

#include "S3Store.hpp"

#include <storage/clients/remote/ContentType.hpp>

#include <algorithm>

namespace storage::clients
{

namespace
{

/// What a new file gets: its type by its name, and the storage class of the settings. A file that changes keeps both.
ObjectMetadata metadataOfNew(const std::string& key, const std::string& storageClass)
{
    ObjectMetadata metadata;
    const auto add = [&](const char* name, const std::string& value)
    { value.empty() ? void() : void(metadata.emplace_back(name, value)); };
    add("Content-Type", contentTypeOf(key));
    add("x-amz-storage-class", storageClass);
    return metadata;
}

RemoteSettings remoteSettings(const s3::S3Settings& settings)
{
    constexpr std::uint64_t minPartSize = StoreAbilities().minPartSize;
    return {.transfers = settings.transfers,
        .memory = settings.memory,
        .partSize = settings.capabilities.equalParts ? std::max(settings.partSize, minPartSize) : settings.partSize,
        .interrupted = settings.interrupted,
        .newMetadata = settings.newMetadata ? settings.newMetadata
                                            : [storageClass = settings.objects.storageClass](const std::string& key)
                           { return metadataOfNew(key, storageClass); }};
}

} // namespace

S3Client::S3Client(const s3::S3Settings& settings)
    : RemoteClient(std::make_unique<s3::S3Store>(settings), remoteSettings(settings))
{
}

} // namespace storage::clients
