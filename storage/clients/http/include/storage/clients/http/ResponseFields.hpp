#pragma once

#include <storage/clients/common/Content.hpp>
#include <storage/clients/http/HttpMessage.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// The values of fields that object stores send and expect.
namespace storage::clients
{

/// Parse a number of digits only; nothing when the text is anything else.
std::optional<std::uint64_t> readNumber(std::string_view text);

/// The length of a response in bytes; nothing when it does not state it.
std::optional<std::uint64_t> lengthOf(const HttpResponse& response);

/// The value of a Range field. @param range  not empty
std::string rangeField(const ByteRange& range);

/// An entity tag without quotes, as clients keep it.
std::string unquotedTag(std::string tag);

/// An entity tag as it is written in conditions.
std::string quotedTag(const std::string& tag);

/// How long the store asks to be left alone: Retry-After as seconds or as a time, or x-ms-retry-after-ms.
std::optional<std::chrono::milliseconds> retryAfter(const HttpResponse& response);

/// What to do about a request that the store calls too old or too new: how wrong this machine's clock is.
std::string clockHint(const HttpResponse& response);

} // namespace storage::clients
