#pragma once

#include "protocol/StoreFailures.hpp"
#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/HttpMessage.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// The length of a response in bytes; nothing when it does not state it.
std::optional<std::uint64_t> lengthOf(const HttpResponse& response);

/// Passes on the bytes of one successful response to a GET, after checking that they are the requested ones.
class RangeReceiver
{
public:
    /// The parameters must outlive the receiver. They are those of RemoteStore::getObject().
    RangeReceiver(const FailureContext& context, const std::optional<ByteRange>& range,
        const std::optional<Version>& version, const ContentReceiver& receiver)
        : m_context(context)
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

private:
    void check(const HttpResponse& head);
    void checkRange(const HttpResponse& head, std::uint64_t length);

    const FailureContext& m_context;
    const std::optional<ByteRange>& m_range;
    const std::optional<Version>& m_version;
    const ContentReceiver& m_receiver;
    std::optional<std::uint64_t> m_expected; // bytes; set when the head has been checked
    std::uint64_t m_received = 0;
    Version m_object;
    std::string m_expectedHash;
    std::optional<Md5> m_hash; // of the received bytes, when the response states what it should be
};

} // namespace storage::clients::s3
