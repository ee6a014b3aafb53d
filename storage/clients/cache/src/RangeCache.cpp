#include <storage/clients/cache/RangeCache.hpp>

#include "BlockFile.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/http/Hashing.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace storage::clients
{

namespace
{

[[noreturn]] void throwUnusable(const std::filesystem::path& folder, const std::string& reason)
{
    throw cloudprovider::UnknownErrorException(
        "Cache unusable", fmt::format("opening the cache in {}: {}", quoted(folder.native()), reason));
}

/// @return a locked descriptor of the folder's lock file; nullopt: somebody else has locked it
std::optional<int> lockFolder(const std::filesystem::path& folder)
{
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
    {
        throwUnusable(folder, std::generic_category().message(errno));
    }
    const int lock = ::open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (lock >= 0 && ::flock(lock, LOCK_EX | LOCK_NB) == 0)
    {
        return lock;
    }
    const int error = errno;
    lock >= 0 ? void(::close(lock)) : void();
    if (error == EWOULDBLOCK)
    {
        return std::nullopt;
    }
    throwUnusable(folder, std::generic_category().message(error));
}

/// Whether a file of the folder is one of ours.
bool isBlockFile(const std::string& name)
{
    return name.size() == 64 && name.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string nameOf(const ObjectVersion& object, std::uint64_t blockSize, std::uint64_t file)
{
    // With the sizes, no two objects have the same text.
    return sha256Hex(fmt::format("{}:{}{}:{}{}:{}{} {} {}", object.store.size(), object.store, object.key.size(),
        object.key, object.tag.size(), object.tag, object.size, blockSize, file));
}

} // namespace

/// The blocks of a range that are in one file.
struct RangeCache::Piece
{
    std::string name;
    ByteRange range;              ///< bytes of the object that are wanted of this file
    std::uint64_t offset = 0;     ///< of the file's first block in the object
    std::uint64_t objectSize = 0; ///< bytes
    std::uint64_t blockSize = 0;  ///< bytes
    std::size_t firstBlock = 0;   ///< of the file, touched by the range
    std::size_t lastBlock = 0;    ///< inclusive

    /// The object's bytes in a block.
    ByteRange bytesOf(std::size_t block) const
    {
        const std::uint64_t start = offset + block * blockSize;
        return {start, std::min(blockSize, objectSize - start)};
    }

    /// Whether the range has all bytes of a block.
    bool contains(const ByteRange& bytes) const
    {
        return bytes.offset >= range.offset && bytes.offset + bytes.size <= range.offset + range.size;
    }
};

/// The smallest range that has all missing blocks of a range.
struct RangeCache::Gap
{
    explicit Gap(const ByteRange& range)
        : first(range.offset + range.size)
        , end(first)
    {
    }

    /// @param present  bit n: block n of the piece's file is not missing
    void add(const Piece& piece, std::uint64_t present)
    {
        for (std::size_t block = piece.firstBlock; block <= piece.lastBlock; ++block)
        {
            if ((present >> block & 1U) == 0)
            {
                const ByteRange bytes = piece.bytesOf(block);
                first = std::min(first, std::max(bytes.offset, piece.range.offset));
                end = std::min(bytes.offset + bytes.size, piece.range.offset + piece.range.size);
            }
        }
    }

    ByteRange range() const { return {first, end - first}; }

    std::uint64_t first; // offsets in the object
    std::uint64_t end;
};

/// Call visit(piece) for each file that has a part of the range, in order.
template <typename Visit>
void RangeCache::forEachFile(const ObjectVersion& object, const ByteRange& range, Visit visit) const
{
    const std::uint64_t block = m_settings.blockSize;
    const std::uint64_t span = block * BlockFile::blocks;
    const std::uint64_t end = range.offset + range.size;
    for (std::uint64_t offset = range.offset; offset < end;)
    {
        const std::uint64_t file = offset / span;
        const std::uint64_t pieceEnd = std::min(end, (file + 1) * span);
        visit(Piece{nameOf(object, block, file), {offset, pieceEnd - offset}, file * span, object.size, block,
            (offset - file * span) / block, (pieceEnd - 1 - file * span) / block});
        offset = pieceEnd;
    }
}

std::shared_ptr<RangeCache> RangeCache::open(const RangeCacheSettings& settings)
{
    const auto lock = lockFolder(settings.folder);
    if (!lock)
    {
        return nullptr;
    }
    std::shared_ptr<RangeCache> cache(new RangeCache(settings, *lock));
    cache->scan();
    return cache;
}

RangeCache::RangeCache(const RangeCacheSettings& settings, int lock)
    : m_settings(settings)
    , m_lock(lock)
{
}

RangeCache::~RangeCache()
{
    ::close(m_lock);
}

/// Find the files of earlier processes, remove those without a block, and evict what is more than the limit.
void RangeCache::scan()
try
{
    std::vector<std::pair<std::filesystem::file_time_type, Entry>> found;
    for (const auto& file : std::filesystem::directory_iterator(m_settings.folder))
    {
        const std::string name = file.path().filename();
        if (!isBlockFile(name))
        {
            continue;
        }
        std::uint64_t present = 0;
        try
        {
            present = BlockFile(file.path(), m_settings.blockSize, BlockFile::Mode::Read).present();
        }
        catch (const std::system_error&) // somebody else's: it cannot be read here, and so not used
        {
        }
        present != 0 ? void(found.emplace_back(file.last_write_time(), Entry{name, present}))
                     : void(std::filesystem::remove(file.path()));
    }
    std::ranges::sort(found, std::greater(), [](const auto& each) { return each.first; });
    const std::lock_guard lock(m_mutex);
    for (auto& [time, entry] : found)
    {
        m_entries.push_back(std::move(entry));
        m_byName.emplace(m_entries.back().name, std::prev(m_entries.end()));
        m_size += bytesOf(m_entries.back());
    }
    evict();
}
catch (const std::filesystem::filesystem_error& failure)
{
    throwUnusable(m_settings.folder, failure.code().message());
}

ByteRange RangeCache::read(const ObjectVersion& object, const ByteRange& range, char* target)
{
    Gap gap(range);
    forEachFile(object, range,
        [&](const Piece& piece) { gap.add(piece, readPiece(piece, target + (piece.range.offset - range.offset))); });
    return gap.range();
}

ByteRange RangeCache::missing(const ObjectVersion& object, const ByteRange& range)
{
    Gap gap(range);
    forEachFile(object, range,
        [&](const Piece& piece)
        {
            const auto [present, writing] = blocksOf(piece.name);
            gap.add(piece, present | writing);
        });
    return gap.range();
}

/// @return bit n: block n was read
std::uint64_t RangeCache::readPiece(const Piece& piece, char* target)
{
    const std::uint64_t present = blocksOf(piece.name).first;
    std::uint64_t done = 0;
    if (present == 0)
    {
        return done;
    }
    try
    {
        const BlockFile file(pathOf(piece.name), m_settings.blockSize, BlockFile::Mode::Read);
        file.touch();
        std::vector<char> whole;
        for (std::size_t block = piece.firstBlock; block <= piece.lastBlock; ++block)
        {
            const ByteRange bytes = piece.bytesOf(block);
            const bool isDirect = piece.contains(bytes);
            if ((present >> block & 1U) == 0)
            {
                continue;
            }
            whole.resize(isDirect ? 0 : bytes.size);
            if (!file.read(block, isDirect ? target + (bytes.offset - piece.range.offset) : whole.data(), bytes.size))
            {
                drop(piece.name);
                return done;
            }
            if (!isDirect)
            {
                const std::uint64_t from = std::max(bytes.offset, piece.range.offset);
                const std::uint64_t to = std::min(bytes.offset + bytes.size, piece.range.offset + piece.range.size);
                std::copy_n(whole.data() + (from - bytes.offset), to - from, target + (from - piece.range.offset));
            }
            done |= std::uint64_t(1) << block;
        }
    }
    catch (const std::system_error&) // it was evicted meanwhile, or somebody has removed it
    {
        drop(piece.name);
    }
    return done;
}

void RangeCache::write(const ObjectVersion& object, const ByteRange& range, const char* bytes)
{
    forEachFile(object, range,
        [&](const Piece& piece)
        {
            if (!m_isReadOnly)
            {
                writePiece(piece, bytes + (piece.range.offset - range.offset));
            }
        });
}

void RangeCache::writePiece(const Piece& piece, const char* bytes)
{
    std::uint64_t wanted = 0;
    for (std::size_t block = piece.firstBlock; block <= piece.lastBlock; ++block)
    {
        wanted |= std::uint64_t(piece.contains(piece.bytesOf(block))) << block;
    }
    const std::uint64_t blocks = reserve(piece.name, wanted);
    if (blocks == 0)
    {
        return;
    }
    try
    {
        BlockFile file(pathOf(piece.name), m_settings.blockSize, BlockFile::Mode::Write);
        for (std::size_t block = piece.firstBlock; block <= piece.lastBlock; ++block)
        {
            if ((blocks >> block & 1U) != 0)
            {
                const ByteRange part = piece.bytesOf(block);
                file.write(block, bytes + (part.offset - piece.range.offset), part.size);
            }
        }
        file.touch();
        finishWrite(piece.name, blocks, true);
    }
    catch (const std::exception& failure) // also std::bad_alloc
    {
        finishWrite(piece.name, blocks, false);
        if (!m_isReadOnly.exchange(true))
        {
            cloudprovider::getLogger().write(foundation::log::severity::warning,
                fmt::format("The cache in {} keeps nothing more until it is opened again: {}",
                    quoted(m_settings.folder.native()), failure.what()));
        }
    }
}

std::uint64_t RangeCache::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_size;
}

/// Entry::present and Entry::writing of a file, which counts as used now.
std::pair<std::uint64_t, std::uint64_t> RangeCache::blocksOf(const std::string& name)
{
    const std::lock_guard lock(m_mutex);
    const auto known = m_byName.find(name);
    if (known == m_byName.end())
    {
        return {};
    }
    m_entries.splice(m_entries.begin(), m_entries, known->second);
    return {m_entries.front().present, m_entries.front().writing};
}

/// Make room for blocks. The file counts as used now, and stays until finishWrite().
/// @return those that the caller shall write: they are not here, nobody else is writing them, and there is room
std::uint64_t RangeCache::reserve(const std::string& name, std::uint64_t blocks)
{
    const std::lock_guard lock(m_mutex);
    const auto entry = entryOf(name);
    const std::uint64_t added = blocks & ~(entry->present | entry->writing);
    const std::uint64_t before = entry->writing;
    m_size -= bytesOf(*entry);
    entry->writing |= added;
    m_size += bytesOf(*entry);
    if (added != 0)
    {
        evict();
    }
    if (m_size <= m_settings.maxSize && added != 0)
    {
        return added;
    }
    m_size -= bytesOf(*entry);
    entry->writing = before;
    m_size += bytesOf(*entry);
    if ((entry->present | entry->writing) == 0)
    {
        remove(entry);
    }
    return 0;
}

void RangeCache::finishWrite(const std::string& name, std::uint64_t blocks, bool isWritten)
{
    const std::lock_guard lock(m_mutex);
    const auto entry = entryOf(name); // it is there: an entry that is being written is not removed
    m_size -= bytesOf(*entry);
    entry->writing &= ~blocks;
    entry->present |= isWritten ? blocks : 0;
    m_size += bytesOf(*entry);
    if ((entry->present | entry->writing) == 0)
    {
        remove(entry);
    }
}

/// Remove a file that is damaged or gone, unless a thread is writing it: the next reader will find it so again.
void RangeCache::drop(const std::string& name)
{
    const std::lock_guard lock(m_mutex);
    if (const auto known = m_byName.find(name); known != m_byName.end() && known->second->writing == 0)
    {
        remove(known->second);
    }
}

/// Find or add an entry, as the most recently used.
RangeCache::Entries::iterator RangeCache::entryOf(const std::string& name)
{
    if (const auto known = m_byName.find(name); known != m_byName.end())
    {
        m_entries.splice(m_entries.begin(), m_entries, known->second);
        return m_entries.begin();
    }
    m_entries.push_front({name});
    m_byName.emplace(m_entries.front().name, m_entries.begin());
    m_size += bytesOf(m_entries.front());
    return m_entries.begin();
}

std::uint64_t RangeCache::bytesOf(const Entry& entry) const
{
    const auto blocks = std::uint64_t(std::popcount(entry.present | entry.writing));
    return BlockFile::headerSize + blocks * m_settings.blockSize;
}

void RangeCache::evict()
{
    for (auto entry = m_entries.end(); m_size > m_settings.maxSize && entry != m_entries.begin();)
    {
        if ((--entry)->writing == 0)
        {
            remove(std::exchange(entry, std::next(entry)));
        }
    }
}

void RangeCache::remove(Entries::iterator entry)
{
    ::unlink(pathOf(entry->name).c_str()); // under the lock, so that it is not another thread's new file
    m_size -= bytesOf(*entry);
    m_byName.erase(entry->name);
    m_entries.erase(entry);
}

} // namespace storage::clients
