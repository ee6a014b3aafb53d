#pragma once

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteStore.hpp>
#include <storage/clients/remote/ResponseFailures.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients
{

/// What only the store's protocol says about a successful response to a GET.
struct ContentFields
{
    /// The metadata of the object.
    std::shared_ptr<const ObjectMetadata> (*metadata)(const HttpResponse& head);

    /// The MD5 of the response's bytes, 16 bytes; empty: the response does not tell it.
    /// @param isWhole  the response has all bytes of the object
    std::string (*hash)(const HttpResponse& head, const std::string& tag, bool isWhole);
};

/// Passes on the bytes of one successful response to a GET, after checking that they are the requested ones.
class RangeReceiver
{
public:
    /// The parameters must outlive the receiver. They are those of RemoteStore::getObject().
    RangeReceiver(const RequestContext& context, const ContentFields& fields, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver)
        : m_context(context)
        , m_fields(fields)
        , m_range(range)
        , m_version(version)
        , m_receiver(receiver)
    {
    }

    /// Check the head at the first piece, and pass a piece of the body on.
    ///
    /// @throws PreconditionFailed when the object has another version; TransientException for a malformed response;
    ///         UnsupportedOperationException when the store ignores ranges; whatever the receiver throws
    void take(const HttpResponse& head, std::string_view bytes);

    /// Check the body at its end.
    ///
    /// @return the object that the bytes belong to
    /// @throws TransientException when there are fewer than announced; CorruptContent when they do not match the hash
    ///         in the response
    Version finish(const HttpResponse& response);

    /// The same for a response without bytes, because the range is beyond the object. It need not tell the object's
    /// version, so a lookup does.
    /// @throws PreconditionFailed, ResourceNotFoundException; TransientException when the object has such bytes
    Version finishBeyond(const HttpResponse& response, const std::optional<StoredObject>& object);

private:
    void check(const HttpResponse& head);
    void checkRange(const HttpResponse& head, std::uint64_t length);

    const RequestContext& m_context;
    const ContentFields& m_fields;
    const std::optional<ByteRange>& m_range;
    const std::optional<Version>& m_version;
    const ContentReceiver& m_receiver;
    std::optional<std::uint64_t> m_expected; // bytes; set when the head has been checked
    std::uint64_t m_received = 0;
    Version m_object;
    std::string m_expectedHash;
    std::optional<Md5> m_hash; // of the received bytes, when the response states what it should be
};

} // namespace storage::clients
