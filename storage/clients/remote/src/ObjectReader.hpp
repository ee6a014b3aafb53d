#pragma once

#include "Retry.hpp"
#include "SmallObjectCache.hpp"

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace storage::clients
{

/// Looks up, lists and reads the objects of a store, with retries. The operations are those of CloudClient; ranges come
/// from the version that VersionPins names. Safe for concurrent calls.
class ObjectReader
{
public:
    /// @param partSize  bytes of the parts that stored objects are cut into
    ObjectReader(RemoteStore& store, Retry& retry, VersionPins& pins, std::uint64_t partSize)
        : m_store(store)
        , m_retry(retry)
        , m_pins(pins)
        , m_partSize(partSize)
    {
    }

    /// Look up an object. @return nullopt: there is none, or the key is empty or longer than any store allows
    /// @param request  the caller's, for messages and its upload's outage
    std::optional<StoredObject> find(const Retry::Request& request);

    std::vector<cloudprovider::ObjectEntry> list(
        const std::string& prefix, std::string& token, const cloudprovider::ListOptions& options);

    std::vector<cloudprovider::PartInfo> parts(const std::string& key);

    void read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last);

    /// Read a range of one version into memory.
    /// @param range    not empty
    /// @throws PreconditionFailed when the object has another version
    void readVersion(const Retry::Request& request, char* target, const ByteRange& range, const Version& version);

private:
    class RangeRead;

    RemoteStore& m_store;
    Retry& m_retry;
    VersionPins& m_pins;
    SmallObjectCache m_contents;
    const std::uint64_t m_partSize;
};

} // namespace storage::clients
