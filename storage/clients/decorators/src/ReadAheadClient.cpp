#include "ReadAhead.hpp"

#include <storage/clients/decorators/ReadAheadClient.hpp>

#include <optional>
#include <utility>

namespace storage::clients
{

using cloudprovider::PartInfo;

ReadAheadClient::ReadAheadClient(std::shared_ptr<cloudprovider::CloudClient> inner, ReadAheadSettings settings)
    : InterceptingClient(std::move(inner))
    , m_readAhead(std::make_unique<ReadAhead>(this->inner(), settings))
{
}

ReadAheadClient::~ReadAheadClient() = default;

void ReadAheadClient::around(const Call& call, const std::function<void()>& proceed)
{
    std::optional<ReadAhead::Write> write;
    if (replacesObject(call.operation))
    {
        write.emplace(*m_readAhead, call.key);
    }
    proceed();
}

void ReadAheadClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    const bool isWhole = first == 0 && last == 0;
    const std::uint64_t size = last - first + 1; // 0: the count overflows, or the range is empty
    if (isWhole || last < first || size == 0 || !m_readAhead->read(key, out, {first, size}))
    {
        InterceptingClient::getObjectRange(key, out, first, last);
    }
}

std::vector<PartInfo> ReadAheadClient::getObjectParts(const std::string& key)
{
    ReadAhead::PartsLookup lookup(*m_readAhead, key);
    auto parts = InterceptingClient::getObjectParts(key);
    lookup.succeeded(parts);
    return parts;
}

} // namespace storage::clients
