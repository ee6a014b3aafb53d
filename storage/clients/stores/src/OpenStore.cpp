#include <storage/clients/stores/OpenStore.hpp>

#include <storage/clients/azure/AzureClient.hpp>
#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/cache/CachingClient.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/local/LocalClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <utility>

namespace storage::clients
{

namespace
{

using cloudprovider::InvalidLocationException;

[[noreturn]] void refuse(const std::string& reason)
{
    throw InvalidLocationException("Invalid store", reason +
                                                        "; use local:DIR, local: (the default directory), memory:, "
                                                        "s3://BUCKET/PREFIX?endpoint=URL&region=REGION&path-style=1 or "
                                                        "azure://ACCOUNT/CONTAINER/PREFIX?endpoint=URL");
}

/// The directory that a variable names; empty when it is not set. A relative path counts as not set.
std::filesystem::path directoryFrom(const char* variable)
{
    const char* value = std::getenv(variable);
    const std::filesystem::path path(value == nullptr ? "" : value);
    return path.is_absolute() ? path : std::filesystem::path();
}

std::filesystem::path defaultDirectory()
{
    if (const auto data = directoryFrom("XDG_DATA_HOME"); !data.empty())
    {
        return data / "cloudfs";
    }
    if (const auto home = directoryFrom("HOME"); !home.empty())
    {
        return home / ".local" / "share" / "cloudfs";
    }
    refuse("neither XDG_DATA_HOME nor HOME names a directory");
}

template <typename Store, typename... Arguments>
std::shared_ptr<CountingClient> counted(const Arguments&... arguments)
{
    return std::make_shared<CountingClient>(std::make_shared<Store>(arguments...));
}

const CacheSettings& orElse(const CacheSettings& named, const CacheSettings& otherwise)
{
    return named.folder.empty() ? otherwise : named;
}

/// Let a client read through the cache of its settings, if they have one. @param store  see CachingClient
std::shared_ptr<cloudprovider::CloudClient> cached(
    std::shared_ptr<cloudprovider::CloudClient> client, const CacheSettings& settings, std::string store)
{
    if (settings.folder.empty())
    {
        return client;
    }
    auto cache = RangeCache::open({settings.folder, settings.maxSize});
    if (!cache)
    {
        cloudprovider::getLogger().write(foundation::log::severity::warning,
            fmt::format("another process, or another store of this one, uses the cache in {}; reading without a cache",
                quoted(settings.folder.native())));
        return client;
    }
    return std::make_shared<CachingClient>(std::move(client), std::move(cache), std::move(store));
}

} // namespace

std::shared_ptr<cloudprovider::CloudClient> openStore(const std::string& url, const OpenStoreOptions& options)
{
    if (const auto directory = localStoreDirectory(url))
    {
        return counted<LocalClient>(
            *directory, LocalSettings{.createMissing = options.createMissing, .interrupted = options.interrupted});
    }
    if (url == "memory:")
    {
        return counted<MemoryClient>();
    }
    if (url.starts_with("s3:"))
    {
        s3::S3Settings settings = s3::parseS3Url(url);
        settings.interrupted = options.interrupted;
        return cached(std::make_shared<S3Client>(settings), orElse(settings.cache, options.cache),
            fmt::format("s3 {} {} {} {}", settings.endpoint, settings.region, settings.bucket, settings.prefix));
    }
    if (url.starts_with("azure:"))
    {
        azure::AzureSettings settings = azure::parseAzureUrl(url);
        settings.interrupted = options.interrupted;
        return cached(std::make_shared<AzureClient>(settings), orElse(settings.cache, options.cache),
            fmt::format("azure {} {} {} {}", settings.endpoint, settings.account, settings.container, settings.prefix));
    }
    refuse("unknown kind of store");
}

std::optional<std::filesystem::path> localStoreDirectory(const std::string& url)
{
    constexpr std::string_view local = "local:";
    if (!url.starts_with(local))
    {
        return std::nullopt;
    }
    const std::string directory = url.substr(local.size());
    return directory.empty() ? defaultDirectory() : std::filesystem::path(directory);
}

} // namespace storage::clients
