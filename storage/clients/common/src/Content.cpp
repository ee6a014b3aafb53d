#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <istream>
#include <ostream>

namespace storage::clients
{

using cloudprovider::UnknownErrorException;

ByteRange resolveRange(const std::string& key, std::uint64_t first, std::uint64_t last, std::uint64_t objectSize)
{
    if (first == 0 && last == 0)
    {
        return {0, objectSize};
    }
    if (last < first)
    {
        return {first, 0};
    }
    if (last >= objectSize)
    {
        throw UnknownErrorException("Range beyond the end of the object",
            fmt::format("reading bytes {} to {} of {}: the object has {} bytes", first, last, quoted(key), objectSize));
    }
    return {first, last - first + 1};
}

void readContent(const std::string& key, std::istream& content, char* target, std::uint64_t size)
{
    content.read(target, static_cast<std::streamsize>(size));
    if (const auto got = static_cast<std::uint64_t>(content.gcount()); got != size)
    {
        throw UnknownErrorException(
            "Content too short", fmt::format("storing {}: expected {} more bytes, got {}", quoted(key), size, got));
    }
}

void writeContent(const std::string& key, std::ostream& out, const char* bytes, std::uint64_t size)
{
    if (!out.write(bytes, static_cast<std::streamsize>(size)))
    {
        throw UnknownErrorException("Output failed",
            fmt::format("reading {}: writing {} bytes to the output stream failed", quoted(key), size));
    }
}

} // namespace storage::clients
