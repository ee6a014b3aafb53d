#include <storage/clients/stores/OpenStore.hpp>

#include <storage/clients/azure/AzureClient.hpp>
#include <storage/clients/azure/AzureSettings.hpp>
#include <storage/clients/decorators/CountingClient.hpp>
#include <storage/clients/local/LocalClient.hpp>
#include <storage/clients/memory/MemoryClient.hpp>
#include <storage/clients/s3/S3Client.hpp>
#include <storage/clients/s3/S3Settings.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

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
        return std::make_shared<S3Client>(settings);
    }
    if (url.starts_with("azure:"))
    {
        azure::AzureSettings settings = azure::parseAzureUrl(url);
        settings.interrupted = options.interrupted;
        return std::make_shared<AzureClient>(settings);
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
