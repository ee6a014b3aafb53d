#include "ObjectReader.hpp"

#include "PartCutting.hpp"

#include <storage/clients/common/Content.hpp>
#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/remote/RemoteFailures.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <ios>
#include <limits>
#include <ostream>
#include <string_view>
#include <utility>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

/// Requested when a file is opened: as many bytes as arrive in the same round trip as the head of a response.
constexpr std::uint64_t openingSize = 16 << 10;

/// Maximum number of consecutive empty pages. Each may stand for thousands of deleted keys, so a listing may have many.
constexpr unsigned maxEmptyPages = 1000;

/// Whether a store may have an object under the key.
bool isPossible(const std::string& key)
{
    return !key.empty() && key.size() <= maxKeyBytes;
}

void requirePossible(const std::string& key, Operation operation)
{
    if (!isPossible(key))
    {
        throw ResourceNotFoundException(
            fmt::format("{} of {} failed: there is no such object", name(operation), quoted(key)));
    }
}

[[noreturn]] void throwBeyondEnd(const std::string& key, const ByteRange& range)
{
    throw UnknownErrorException(
        "Invalid range", fmt::format("bytes {} to {} of {} end beyond the object, which has become shorter",
                             range.offset, range.offset + range.size - 1, quoted(key)));
}

/// Move a stream back by so many bytes. @return false: it cannot do that
bool rewind(std::ostream& out, std::uint64_t bytes)
try
{
    // Call the buffer directly, since a stream sets badbit if its buffer is not seekable.
    std::streambuf& buffer = *out.rdbuf();
    const auto tell = [&] { return std::streamoff(buffer.pubseekoff(0, std::ios_base::cur, std::ios_base::out)); };
    const std::streamoff start = tell() - static_cast<std::streamoff>(bytes);
    buffer.pubseekpos(start, std::ios_base::out);
    // Check the position, because beyond 2 GiB some buffers report success although their position, an int, has
    // overflowed.
    return tell() == start;
}
catch (const std::ios_base::failure&) // some buffers report in this way that they are not seekable
{
    return false;
}

/// Where the bytes of a read go.
struct Target
{
    ObjectReader::Write write;                       ///< in order
    std::function<bool(std::uint64_t bytes)> rewind; ///< go back to position 0; false: impossible
};

Target targetIn(const std::string& key, std::ostream& out)
{
    return {[&](std::uint64_t, std::string_view bytes) { writeContent(key, out, bytes.data(), bytes.size()); },
        [&](std::uint64_t bytes) { return rewind(out, bytes); }};
}

} // namespace

/// One read of one range. Each attempt goes on behind the last byte that was delivered, at the same version.
class ObjectReader::RangeRead
{
public:
    /// @param range  not empty; nullopt: the whole object
    RangeRead(RemoteStore& store, const std::string& key, const std::optional<ByteRange>& range, Target target)
        : m_store(store)
        , m_key(key)
        , m_range(range)
        , m_target(std::move(target))
    {
    }

    /// Request what is missing.
    ///
    /// @param version  nullopt: any
    /// @throws PreconditionFailed when the object is another version
    void attempt(const std::optional<Version>& version)
    {
        if (m_delivered > 0 && version && version->tag != m_object.tag)
        {
            restart("Object changed", "reading " + quoted(m_key) + ": this client has replaced the object meanwhile");
        }
        if (m_delivered == 0 || m_delivered < expected(m_object)) // else the last attempt broke after the last byte
        {
            request(m_delivered == 0 ? version : m_object, version.has_value());
        }
        if (m_delivered < m_furthest)
        {
            throw UnknownErrorException("Object changed while it was read",
                fmt::format("reading {}: the object became shorter, and a failed attempt had already written more",
                    quoted(m_key)));
        }
    }

    /// The most bytes that attempts have delivered.
    std::uint64_t progress() const { return m_furthest; }

private:
    void request(const std::optional<Version>& version, bool isPinned)
    try
    {
        const Version object = m_store.getObject(
            m_key, missing(), version, [this](const Version& source, std::string_view bytes) { take(source, bytes); });
        if (const std::uint64_t size = expected(object); m_delivered != size)
        {
            throwBeyondEnd(m_key, m_range.value_or(ByteRange{0, size}));
        }
    }
    catch (const CorruptContent& failure)
    {
        restart(failure.what(), failure.detail().value_or(""));
        throw;
    }
    catch (const PreconditionFailed& failure)
    {
        if (isPinned || m_delivered == 0)
        {
            throw;
        }
        restart(failure.what(), failure.detail().value_or(""));
        throw TransientException(failure.what(), failure.detail()); // any version will do
    }

    void take(const Version& object, std::string_view bytes)
    {
        if (bytes.size() > expected(object) - m_delivered)
        {
            throw UnknownErrorException("Content too long",
                fmt::format("reading {}: the store sent more bytes than were requested", quoted(m_key)));
        }
        m_object = object;
        m_target.write(m_delivered, bytes);
        m_delivered += bytes.size();
        m_furthest = std::max(m_furthest, m_delivered);
    }

    /// Bytes that the object has of the range. @throws UnknownErrorException if that is not all of it
    std::uint64_t expected(const Version& object) const
    {
        if (m_range && (m_range->offset > object.size || m_range->size > object.size - m_range->offset))
        {
            throwBeyondEnd(m_key, *m_range);
        }
        return m_range ? m_range->size : object.size;
    }

    std::optional<ByteRange> missing() const
    {
        if (m_delivered == 0)
        {
            return m_range;
        }
        return ByteRange{(m_range ? m_range->offset : 0) + m_delivered, expected(m_object) - m_delivered};
    }

    /// Let the next request begin at the first byte, or throw if the target cannot take it again.
    void restart(const std::string& what, const std::string& detail)
    {
        if (!m_target.rewind(std::exchange(m_delivered, 0)))
        {
            throw UnknownErrorException(what, detail + "; the output stream cannot be rewound");
        }
    }

    RemoteStore& m_store;
    const std::string& m_key;
    const std::optional<ByteRange> m_range;
    const Target m_target;
    Version m_object; // that the delivered bytes belong to
    std::uint64_t m_delivered = 0;
    std::uint64_t m_furthest = 0;
};

std::optional<StoredObject> ObjectReader::find(const Retry::Request& request)
{
    if (!isPossible(request.key)) // an empty key would be the root
    {
        return std::nullopt;
    }
    return m_retry.run(request, [&] { return m_store.findObject(request.key); });
}

std::vector<ObjectEntry> ObjectReader::list(const std::string& prefix, std::string& token, const ListOptions& options)
{
    std::string next = token;
    for (unsigned pages = 1;; ++pages)
    {
        ListingPage page =
            m_retry.run({Operation::ListObjects, prefix}, [&] { return m_store.listObjects(prefix, next, options); });
        if ((!next.empty() && page.nextToken == next) || pages > maxEmptyPages)
        {
            throw UnknownErrorException(
                "Malformed response", "listObjects of " + quoted(prefix) + " failed: the listing does not advance");
        }
        next = std::move(page.nextToken);
        if (!page.entries.empty() || next.empty())
        {
            token = std::move(next);
            return std::move(page.entries);
        }
    }
}

Version ObjectReader::open(const std::string& key, std::uint64_t size, std::string& content)
{
    requirePossible(key, Operation::GetObjectParts);
    return m_retry.run(
        {Operation::GetObjectParts, key},
        [&]
        {
            content.clear();
            return m_store.getObject(key, ByteRange{0, size}, std::nullopt,
                [&](const Version&, std::string_view bytes) { content += bytes; });
        },
        [&] { return content.size(); });
}

std::vector<PartInfo> ObjectReader::parts(const std::string& key)
{
    VersionPins::Opening opening(m_pins, key);
    std::string content;
    const Version object = open(key, openingSize, content);
    if (content.size() == object.size)
    {
        m_contents.keep(key, object.tag, std::move(content));
    }
    opening.opened(object);
    return cutIntoParts(object, m_partSize, m_store.abilities(key));
}

void ObjectReader::read(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    if (last < first)
    {
        return;
    }
    requirePossible(key, Operation::GetObjectRange);
    if (last == std::numeric_limits<std::uint64_t>::max()) // beyond any object, and sums with it would overflow
    {
        throwBeyondEnd(key, {first, last - first + 1});
    }
    const bool isWhole = first == 0 && last == 0;
    const auto range = isWhole ? std::nullopt : std::optional(ByteRange{first, last - first + 1});
    if (const auto opened = m_pins.pinned(key); opened && (isWhole || range == ByteRange{0, opened->size}))
    {
        if (const auto content = m_contents.take(key, opened->tag))
        {
            writeContent(key, out, content->data(), content->size());
            return;
        }
    }
    RangeRead reading(m_store, key, range, targetIn(key, out));
    const auto tryRead = [&](const std::optional<Version>& version)
    {
        try
        {
            reading.attempt(version);
            return true;
        }
        catch (const PreconditionFailed&)
        {
            return false;
        }
    };
    m_retry.run(
        {Operation::GetObjectRange, key}, [&] { m_pins.read(key, tryRead); }, [&] { return reading.progress(); });
}

void ObjectReader::readVersion(
    const Retry::Request& request, char* target, const ByteRange& range, const Version& version)
{
    readVersion(
        request, [&](std::uint64_t position, std::string_view bytes) { bytes.copy(target + position, bytes.size()); },
        range, version);
}

void ObjectReader::readVersion(
    const Retry::Request& request, const Write& write, const ByteRange& range, const Version& version)
{
    RangeRead reading(m_store, request.key, range, {write, [](std::uint64_t) { return true; }});
    m_retry.run(
        request, [&] { reading.attempt(version); }, [&] { return reading.progress(); });
}

} // namespace storage::clients
