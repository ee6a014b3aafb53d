#pragma once

#include "KnownVersions.hpp"

#include "http/HttpMessage.hpp"
#include "protocol/StoreFailures.hpp"
#include "signing/Hashing.hpp"

#include <storage/clients/common/Content.hpp>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// The object is not the version that was asked for; nothing of it was taken.
struct VersionMismatch
{
};

/// Throw that the object has become too short for a range.
[[noreturn]] void throwBeyondEnd(const std::string& key, const ByteRange& range);

/// Bytes that an answer has; nothing when it does not say.
std::optional<std::uint64_t> lengthOf(const HttpResponse& response);

/// Hands the bytes of one good answer to a GET on, once its head has shown that they are those asked for.
class RangeReceiver
{
public:
    enum class End
    {
        WithinObject,   ///< the whole range must be there
        MayExceedObject ///< what there is of it will do
    };

    /// @param key      outlives the receiver, as `out` does
    /// @param range    not empty; nothing: the whole object
    /// @param version  nothing: any
    RangeReceiver(const std::string& key, FailureContext context, std::ostream& out, std::optional<ByteRange> range,
        std::optional<Version> version, End end = End::WithinObject);

    /// @throws VersionMismatch, TransientException for a broken answer, UnknownErrorException for a range that ends
    /// beyond
    ///         the object, UnsupportedOperationException when the store ignores ranges
    void take(const HttpResponse& head, std::string_view bytes);

    /// Say that the answer has ended.
    ///
    /// @return bytes received
    /// @throws TransientException unless they are all of those announced, and the right ones as far as the answer tells
    std::uint64_t finish(const HttpResponse& response);

    /// What the bytes are of; after finish().
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
    std::optional<std::uint64_t> m_expected; // bytes; set once the head was found to be right
    std::uint64_t m_received = 0;
    Version m_object;
    std::string m_expectedHash;
    std::optional<Md5> m_hash; // of what was received, where the answer tells what it should be
};

} // namespace storage::clients::s3
