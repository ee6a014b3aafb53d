#include "Segments.hpp"

#include "BlockHashes.hpp"
#include "StoreError.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace storage::clients::local
{

namespace
{

// Limits the file descriptors of one reader, and its memory for inline segments, however many parts the object has.
constexpr std::int64_t maxOpenSegments = 16;

constexpr std::uint64_t readBuffer = 4 * hashedBlock; // bytes; a larger buffer is not faster

// A segment with the file that it is to be read from, which is not open yet.
struct LocatedSegment
{
    Segment segment;
    FileName name;
};

std::vector<LocatedSegment> locateSegments(
    Connection& index, const ContentFiles& files, std::int64_t object, std::uint64_t offset, std::uint64_t end)
{
    Query query = index.query("SELECT part.offset, content.size, content.id, content.session, content.data,"
                              " content.hashes"
                              " FROM object_parts AS part LEFT JOIN contents AS content ON content.id = part.content"
                              " WHERE part.object = ?1 AND part.offset < ?3 AND part.offset >="
                              " (SELECT offset FROM object_parts WHERE object = ?1 AND offset <= ?2"
                              " ORDER BY offset DESC LIMIT 1)"
                              " ORDER BY part.offset LIMIT ?4",
        object, static_cast<std::int64_t>(offset), static_cast<std::int64_t>(end), maxOpenSegments);
    std::vector<LocatedSegment> found;
    std::uint64_t position = offset;
    while (position < end && query.next())
    {
        const auto begin = static_cast<std::uint64_t>(query.integer(0));
        const auto size = static_cast<std::uint64_t>(query.integer(1));
        if (query.isNull(2) || begin > position || position >= begin + size)
        {
            throw damage("the index has lost a part of the object");
        }
        LocatedSegment next;
        next.segment.offset = position - begin;
        next.segment.size = std::min(end, begin + size) - position;
        if (query.isNull(3))
        {
            const std::string_view bytes = query.bytes(4);
            if (bytes.size() != size)
            {
                throw damage("the index has lost bytes of the object");
            }
            next.segment.bytes = bytes.substr(next.segment.offset, next.segment.size);
        }
        else
        {
            next.name = {query.integer(2), static_cast<std::uint64_t>(query.integer(3))};
            next.segment.path = files.path(next.name);
            next.segment.fileSize = size;
            next.segment.hashes = query.bytes(5);
        }
        position += next.segment.size;
        found.push_back(std::move(next));
    }
    return found;
}

void checkBlocks(const Segment& segment, std::uint64_t offset, const char* bytes, std::uint64_t size)
{
    if (const auto block = findDamagedBlock(segment.hashes, offset / hashedBlock, bytes, size))
    {
        const std::uint64_t begin = *block * hashedBlock;
        throw damage(fmt::format("the bytes {} to {} of \"{}\" are not those that were stored", begin,
            std::min(begin + hashedBlock, segment.fileSize) - 1, segment.path.native()));
    }
}

bool exists(Database& database, std::int64_t object)
{
    Database::ReadTransaction index(database);
    // Not a lookup by key, but rare. The parts of a removed object do not count: they may be dropped one by one.
    return index->query("SELECT 1 FROM objects WHERE id = ?", object).next();
}

// Find and open the next segments; nullopt when the version was replaced.
std::optional<std::vector<LocatedSegment>> openSegments(
    Database& database, const ContentFiles& files, std::int64_t object, std::uint64_t offset, std::uint64_t end)
{
    std::vector<LocatedSegment> found = [&]
    {
        Database::ReadTransaction index(database);
        return locateSegments(*index, files, object, offset, end);
    }();
    if (found.empty())
    {
        if (exists(database, object))
        {
            throw damage("the index has lost the end of the object");
        }
        return std::nullopt;
    }
    for (LocatedSegment& next : found)
    {
        if (next.segment.path.empty())
        {
            continue;
        }
        std::optional<FileHandle> file = files.open(next.name, next.segment.fileSize);
        if (!file)
        {
            // A file is removed after the transaction that drops its content. If the index still names the file, it was
            // lost in another way.
            if (exists(database, object))
            {
                throw damage("the file \"" + next.segment.path.native() + "\" is missing");
            }
            return std::nullopt;
        }
        next.segment.file = std::move(*file);
    }
    return found;
}

} // namespace

void readSegment(const Segment& segment, const std::function<void(const char* bytes, std::uint64_t size)>& take)
{
    if (segment.path.empty())
    {
        take(segment.bytes.data(), segment.size);
        return;
    }
    const std::uint64_t end = segment.offset + segment.size;
    const std::uint64_t endOfBlock = std::min((end + hashedBlock - 1) / hashedBlock * hashedBlock, segment.fileSize);
    std::uint64_t begin = segment.offset / hashedBlock * hashedBlock;
    std::vector<char> buffer(std::min(readBuffer, endOfBlock - begin));
    while (begin < end)
    {
        const std::uint64_t count = std::min<std::uint64_t>(buffer.size(), endOfBlock - begin);
        readFile(segment.file, segment.path, buffer.data(), count, begin);
        if (!segment.hashes.empty())
        {
            checkBlocks(segment, begin, buffer.data(), count);
        }
        const std::uint64_t skipped = std::max(begin, segment.offset) - begin;
        take(buffer.data() + skipped, std::min(begin + count, end) - begin - skipped);
        begin += count;
    }
}

bool readSegments(Database& database, const ContentFiles& files, std::int64_t object, std::uint64_t offset,
    std::uint64_t end, const std::function<void(const Segment&)>& take)
{
    bool hasStarted = false;
    while (offset < end)
    {
        std::optional<std::vector<LocatedSegment>> found = openSegments(database, files, object, offset, end);
        if (!found)
        {
            if (hasStarted)
            {
                throw StoreError("the object was replaced while it was being read");
            }
            return false;
        }
        for (LocatedSegment& next : *found)
        {
            take(next.segment);
            offset += next.segment.size;
            hasStarted = true;
        }
    }
    return true;
}

} // namespace storage::clients::local
