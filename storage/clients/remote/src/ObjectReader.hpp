#pragma once

#include "Retry.hpp"
#include "SmallObjectCache.hpp"

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/cloudprovider/CloudClient.hpp>

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
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

    /// Fetch the first bytes of the object, whichever version is there.
    /// @param size     maximum bytes; not 0
    /// @param content  replaced by the bytes, all of them if the object has no more
    Version open(const std::string& key, std::uint64_t size, std::string& content);

    std::vector<cloudprovider::PartInfo> parts(const std::string& key);

    void read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last);

    /// Read a range of one version into memory.
    /// @param range    not empty
    /// @throws PreconditionFailed when the object has another version
    void readVersion(const Retry::Request& request, char* target, const ByteRange& range, const Version& version);

    /// Takes bytes of a range: in order, but if bytes turn out to be wrong, again from position 0.
    using Write = std::function<void(std::uint64_t position, std::string_view bytes)>;

    /// The same, with a function. What it throws ends the read.
    void readVersion(const Retry::Request& request, const Write& write, const ByteRange& range, const Version& version);

private:
    class RangeRead;

    RemoteStore& m_store;
    Retry& m_retry;
    VersionPins& m_pins;
    SmallObjectCache m_contents;
    const std::uint64_t m_partSize;
};

} // namespace storage::clients
