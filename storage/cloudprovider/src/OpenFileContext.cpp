#include "OpenFileContext.hpp"

#include "LogRecords.hpp"

#include <storage/cloudprovider/utils.hpp>

#include <fl/i18n.hpp>

namespace storage::cloudprovider
{

namespace
{

std::uint64_t sizeFromEnvironment(const char* variable, std::uint64_t defaultSize)
{
    try
    {
        const std::u16string value = fl::i18n::getenv(variable);
        return value.empty() ? defaultSize : std::stoull(fl::i18n::to_string(value), nullptr, 10);
    }
    catch (...)
    {
        // A bad value in the environment must not make files unreadable.
        logCaughtException();
        return defaultSize;
    }
}

} // namespace

OpenFileContext::OpenFileContext(foundation::storage::provider::StorageIRI fileIri, CloudClientSharedPtr storeClient,
    std::unique_ptr<BufferFactory> factory)
    : iri(std::move(fileIri))
    , key(utils::iriToKey(iri))
    , client(std::move(storeClient))
    , bufferFactory(std::move(factory))
    , partSize(partSizeFromEnvironment())
    , downloadedPartCacheLimit(downloadedPartCacheLimitFromEnvironment())
{
}

std::uint64_t partSizeFromEnvironment()
{
    return sizeFromEnvironment("ZV_CLOUD_PART_SIZE_OVERRIDE", 0x500000); // common minimum of stores for a part
}

std::uint64_t downloadedPartCacheLimitFromEnvironment()
{
    return sizeFromEnvironment("ZV_CLOUD_DOWNLOADED_PART_CACHE_OVERRIDE", 0x6400000); // twenty parts of that size
}

} // namespace storage::cloudprovider
