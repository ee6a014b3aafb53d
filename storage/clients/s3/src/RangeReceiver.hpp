#pragma once

#include "protocol/StoreFailures.hpp"
#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/clients/http/HttpMessage.hpp>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// Thrown when the object is not the requested version. No byte of it was passed on.
struct VersionMismatch
{
};

/// Throw the exception for a range that ends beyond an object, because the object has become shorter.
[[noreturn]] void throwBeyondEnd(const std::string& key, const ByteRange& range);

/// The length of a response in bytes; nothing when it does not state it.
std::optional<std::uint64_t> lengthOf(const HttpResponse& response);

/// Passes on the bytes of one successful response to a GET, after checking that they are the requested ones.
class RangeReceiver
{
public:
    enum class End
    {
        WithinObject,   ///< the object must have the whole range
        MayExceedObject ///< the range may end beyond the object; the bytes that exist are enough
    };

    /// @param key      must outlive the receiver, like `out`
    /// @param range    not empty; nothing: the whole object
    /// @param version  nothing: any
    RangeReceiver(const std::string& key, FailureContext context, std::ostream& out, std::optional<ByteRange> range,
        std::optional<Version> version, End end = End::WithinObject);

    /// Check the head at the first piece, and pass a piece of the body on.
    ///
    /// @throws VersionMismatch; TransientException for a malformed response; UnknownErrorException for a range that
    ///         ends beyond the object; UnsupportedOperationException when the store ignores ranges
    void take(const HttpResponse& head, std::string_view bytes);

    /// Check the body at its end.
    ///
    /// @return bytes received
    /// @throws TransientException when there are fewer than announced, or when they do not match the hash in the
    ///         response
    std::uint64_t finish(const HttpResponse& response);

    /// The object that the bytes belong to; valid after finish().
    const Version& object() const noexcept { return m_object; }

private:
    void check(const HttpResponse& head);
    void checkRange(const HttpResponse& head, std::uint64_t length);

    const std::string& m_key;
    const FailureContext m_context;
    std::ostream& m_out;
    const std::optional<ByteRange> m_range;
    const std::optional<Version> m_version;
    const End m_end;
    std::optional<std::uint64_t> m_expected; // bytes; set when the head has been checked
    std::uint64_t m_received = 0;
    Version m_object;
    std::string m_expectedHash;
    std::optional<Md5> m_hash; // of the received bytes, when the response states what it should be
};

} // namespace storage::clients::s3
