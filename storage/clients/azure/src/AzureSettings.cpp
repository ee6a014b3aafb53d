#include <storage/clients/azure/AzureSettings.hpp>

#include "protocol/ContainerAddress.hpp"

#include <storage/clients/remote/StoreUrl.hpp>

namespace storage::clients::azure
{

AzureSettings parseAzureUrl(const std::string& url)
{
    const StoreUrl parsed(url, "azure", urlForm);
    const std::string& place = parsed.place();
    const std::size_t first = std::min(place.find('/'), place.size());
    const std::size_t second = place.find('/', first + 1);
    AzureSettings settings;
    settings.account = place.substr(0, first);
    settings.container = place.substr(std::min(first + 1, place.size()), second - first - 1);
    settings.prefix = parsed.prefixAfter(second);
    StoreUrl::Readers readers = transferReaders(settings);
    readers["anonymous"] = [&](const auto& value)
    { settings.credentials = readFlag(value) ? fixedCredentials({}) : nullptr; };
    parsed.read(readers);
    const ContainerAddress valid(settings);
    return settings;
}

} // namespace storage::clients::azure
