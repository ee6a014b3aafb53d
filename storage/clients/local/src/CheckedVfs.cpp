#include "CheckedVfs.hpp"

#include "Files.hpp"

#include <sqlite3.h>
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <new>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace storage::clients::local
{

namespace
{

using Bytes = const unsigned char*;

// The format of a write-ahead log: a header, then frames of a header and a page each. All numbers are big-endian.
constexpr int logHeaderSize = 32;   // at 0: magic number, at 16: salt, at 24: checksum of the bytes before
constexpr int frameHeaderSize = 24; // at 0: page number, at 4: pages of the index if this commits, at 8: salt,
                                    // at 16: checksum of the 8 first bytes, the page, and all frames before
constexpr int frameSize = frameHeaderSize + indexPageSize;
constexpr int checksumInHeader = 24;
constexpr int checksumInFrame = 16;

// Room that is kept for the log. It is enough to remove an object of 10,000 parts.
constexpr sqlite3_int64 keptLogSize = 512 * 1024;

// The index grows in steps of this size.
constexpr int growth = 64 * 1024;

struct Sum
{
    std::uint32_t first = 0;
    std::uint32_t second = 0;
};

using Salt = std::array<unsigned char, 8>;

// The log with this salt is synced and complete up to this number of frames.
struct LogEnd
{
    Salt salt{};
    std::uint64_t frames = 0; // 0: nothing is known
};

// What SQLite takes for an open file: our part, followed by the file of the VFS below.
struct File : sqlite3_file
{
    sqlite3_file* inner() noexcept { return reinterpret_cast<sqlite3_file*>(this + 1); }
    const sqlite3_io_methods& call() noexcept { return *inner()->pMethods; }

    const char* name = nullptr;                    // SQLite keeps it while the file is open
    File* other = nullptr;                         // of a log: the index; of an index: the log, if it is open
    int logEnd = -1;                               // of an index: the file with the LogEnd
    bool ignoresLogEnd = false;                    // of an index
    const std::function<void()>* onRead = nullptr; // of an index; null: nothing is to be called
    LogEnd written;                                // of a log: where the transaction that is being written ends
    LogEnd expected;                               // of a log: what the recovery that is in progress must find
};

File& fileOf(sqlite3_file* file)
{
    return *static_cast<File*>(file);
}

std::uint32_t bigEndian(Bytes bytes)
{
    return std::uint32_t{bytes[0]} << 24U | std::uint32_t{bytes[1]} << 16U | std::uint32_t{bytes[2]} << 8U | bytes[3];
}

std::uint32_t littleEndian(Bytes bytes)
{
    return std::uint32_t{bytes[3]} << 24U | std::uint32_t{bytes[2]} << 16U | std::uint32_t{bytes[1]} << 8U | bytes[0];
}

// SQLite's checksum of a log.
template <std::uint32_t (*Number)(Bytes)>
Sum add(Sum sum, Bytes bytes, int size)
{
    for (int i = 0; i < size; i += 8)
    {
        sum.first += Number(bytes + i) + sum.second;
        sum.second += Number(bytes + i + 4) + sum.first;
    }
    return sum;
}

Sum readSum(Bytes bytes)
{
    return {bigEndian(bytes), bigEndian(bytes + 4)};
}

bool equal(Sum sum, Bytes stored)
{
    return sum.first == bigEndian(stored) && sum.second == bigEndian(stored + 4);
}

// The machine that has written the log has chosen the byte order of the sums.
bool isLogHeaderRight(Bytes header)
{
    return equal(add<littleEndian>({}, header, checksumInHeader), header + checksumInHeader) ||
           equal(add<bigEndian>({}, header, checksumInHeader), header + checksumInHeader);
}

// Whether only the mark of truncateLog() differs from a right header.
bool isMarkedClosed(Bytes header)
{
    std::array<unsigned char, logHeaderSize> before{};
    std::memcpy(before.data(), header, before.size());
    constexpr std::array<std::array<unsigned char, 4>, 2> magicNumbers{
        {{0x37, 0x7f, 0x06, 0x82}, {0x37, 0x7f, 0x06, 0x83}}};
    return bigEndian(header) == 0 && std::any_of(magicNumbers.begin(), magicNumbers.end(),
                                         [&](const auto& magic)
                                         {
                                             std::copy(magic.begin(), magic.end(), before.begin());
                                             return isLogHeaderRight(before.data());
                                         });
}

bool isFrameRight(Sum before, Bytes header, Bytes page)
{
    return equal(add<littleEndian>(add<littleEndian>(before, header, 8), page, indexPageSize),
               header + checksumInFrame) ||
           equal(add<bigEndian>(add<bigEndian>(before, header, 8), page, indexPageSize), header + checksumInFrame);
}

std::array<unsigned char, pageChecksumSize> pageChecksum(Bytes page, sqlite3_int64 offset)
{
    XXH64_canonical_t bytes;
    XXH64_canonicalFromHash(&bytes, XXH3_64bits_withSeed(page, indexPageSize - pageChecksumSize,
                                        static_cast<XXH64_hash_t>(offset / indexPageSize)));
    return std::to_array(bytes.digest);
}

// The file with the LogEnd. It is not synced: after a loss of power, an older state protects less, and no longer fits
// the salt of a newer log.

struct StoredLogEnd
{
    LogEnd end;
    std::uint64_t hash = 0;

    static std::uint64_t hashOf(const LogEnd& end) { return XXH3_64bits(&end, sizeof(end)); }
};
static_assert(sizeof(StoredLogEnd) == 24); // no padding: all bytes are written

LogEnd readLogEnd(const File& index)
{
    StoredLogEnd stored;
    const bool isRight = !index.ignoresLogEnd && ::pread(index.logEnd, &stored, sizeof(stored), 0) == sizeof(stored) &&
                         StoredLogEnd::hashOf(stored.end) == stored.hash;
    return isRight ? stored.end : LogEnd();
}

bool writeLogEnd(const File& index, const LogEnd& end)
{
    const StoredLogEnd stored{end, StoredLogEnd::hashOf(end)};
    return ::pwrite(index.logEnd, &stored, sizeof(stored), 0) == sizeof(stored);
}

// Allocate disk space up to this size.
int reserve(File& file, sqlite3_int64 size)
{
    int step = growth;
    const auto control = file.call().xFileControl;
    control(file.inner(), SQLITE_FCNTL_CHUNK_SIZE, &step);
    return control(file.inner(), SQLITE_FCNTL_SIZE_HINT, &size) == SQLITE_OK ? SQLITE_OK : SQLITE_FULL;
}

// Run a function that may throw: SQLite is not written for exceptions.
template <typename Body>
int guarded(Body body) noexcept
try
{
    return body();
}
catch (const std::bad_alloc&)
{
    return SQLITE_NOMEM;
}
catch (...)
{
    return SQLITE_IOERR;
}

// Methods of both kinds of files.

int close(sqlite3_file* base)
{
    File& file = fileOf(base);
    const int code = file.call().xClose(file.inner());
    if (file.other != nullptr)
    {
        file.other->other = nullptr;
    }
    if (file.logEnd >= 0)
    {
        ::close(file.logEnd);
    }
    return code;
}

template <auto Method, typename... Arguments>
int forward(sqlite3_file* base, Arguments... arguments)
{
    File& file = fileOf(base);
    return (file.call().*Method)(file.inner(), arguments...);
}

void barrier(sqlite3_file* base)
{
    File& file = fileOf(base);
    file.call().xShmBarrier(file.inner());
}

// Methods of the index.

// SQLite takes an empty index for a new one and deletes its log. But an index gets its log after its first pages, and
// keeps it: one that is empty beside a log was truncated.
int sizeOfIndex(sqlite3_file* base, sqlite3_int64* size)
{
    File& file = fileOf(base);
    return guarded(
        [&]
        {
            const int code = file.call().xFileSize(file.inner(), size);
            const bool isLost =
                code == SQLITE_OK && *size == 0 && ::access((std::string(file.name) + "-wal").c_str(), F_OK) == 0;
            return isLost ? SQLITE_CORRUPT : code;
        });
}

int readIndex(sqlite3_file* base, void* target, int size, sqlite3_int64 offset)
{
    File& file = fileOf(base);
    if (file.onRead != nullptr)
    {
        (*file.onRead)();
    }
    const int code = file.call().xRead(file.inner(), target, size, offset);
    if (size != indexPageSize) // the header alone, which SQLite also reads as a part of its page
    {
        return code;
    }
    if (code == SQLITE_IOERR_SHORT_READ)
    {
        sqlite3_int64 fileSize = 0;
        const int sizeCode = sizeOfIndex(base, &fileSize);
        const bool isNew = sizeCode == SQLITE_OK && fileSize == 0 && offset == 0;
        return isNew ? code : SQLITE_CORRUPT; // SQLite takes what is missing for zeros
    }
    if (code != SQLITE_OK)
    {
        return code;
    }
    const auto* page = static_cast<Bytes>(target);
    const auto checksum = pageChecksum(page, offset);
    const bool isRight = std::memcmp(page + size - pageChecksumSize, checksum.data(), checksum.size()) == 0;
    return isRight ? SQLITE_OK : SQLITE_CORRUPT;
}

int writeIndex(sqlite3_file* base, const void* bytes, int size, sqlite3_int64 offset)
{
    File& file = fileOf(base);
    if (size != indexPageSize)
    {
        return SQLITE_MISUSE; // SQLite writes whole pages only
    }
    std::array<unsigned char, indexPageSize> page{};
    std::memcpy(page.data(), bytes, page.size());
    const auto checksum = pageChecksum(page.data(), offset);
    std::memcpy(page.data() + size - pageChecksumSize, checksum.data(), checksum.size());
    return file.call().xWrite(file.inner(), page.data(), size, offset);
}

int mapShared(sqlite3_file* base, int region, int size, int extend, void volatile** mapped)
{
    File& file = fileOf(base);
    return guarded(
        [&]
        {
            if (isIrregular(std::string(file.name) + "-shm"))
            {
                return SQLITE_CORRUPT;
            }
            const int code = file.call().xShmMap(file.inner(), region, size, extend, mapped);
            if ((code & 0xFF) == SQLITE_READONLY) // SQLite would take that for a lock
            {
                return SQLITE_PERM;
            }
            // Another process is opening the index as its first user. SQLite would sleep up to 10 s by itself, and only
            // then call the handler that can be interrupted. It calls that at once while another process recovers.
            return code == SQLITE_BUSY ? SQLITE_BUSY_RECOVERY : code;
        });
}

int lockShared(sqlite3_file* base, int offset, int count, int flags)
{
    constexpr int writeLock = 0;
    File& file = fileOf(base);
    if (file.other != nullptr && offset == writeLock && (flags & SQLITE_SHM_UNLOCK) != 0)
    {
        file.other->written = {}; // a later sync is for another transaction
    }
    return file.call().xShmLock(file.inner(), offset, count, flags);
}

int controlIndex(sqlite3_file* base, int operation, void* argument)
{
    if (operation == SQLITE_FCNTL_PERSIST_WAL) // SQLite asks whether to keep the log when the last connection closes
    {
        *static_cast<int*>(argument) = 1;
        return SQLITE_OK;
    }
    File& file = fileOf(base);
    if (operation == callOnRead)
    {
        file.onRead = static_cast<const std::function<void()>*>(argument);
        return SQLITE_OK;
    }
    if (operation == ignoreLogEnd)
    {
        file.ignoresLogEnd = true;
        return SQLITE_OK;
    }
    return file.call().xFileControl(file.inner(), operation, argument);
}

// Methods of the log.

// Check a frame of the log: its header, which the caller has read or not, and its page.
int checkFrame(File& log, sqlite3_int64 start, Bytes header, Bytes page)
{
    std::array<unsigned char, frameHeaderSize> headerBytes{};
    std::array<unsigned char, sizeof(Sum)> before{};
    const sqlite3_int64 beforeAt =
        start == logHeaderSize ? sqlite3_int64{checksumInHeader} : start - frameSize + checksumInFrame;
    const auto read = log.call().xRead;
    int code = read(log.inner(), before.data(), before.size(), beforeAt);
    if (code == SQLITE_OK && header == nullptr)
    {
        header = headerBytes.data();
        code = read(log.inner(), headerBytes.data(), frameHeaderSize, start);
    }
    if (code != SQLITE_OK)
    {
        return code;
    }
    return isFrameRight(readSum(before.data()), header, page) ? SQLITE_OK : SQLITE_CORRUPT;
}

// A recovery begins. Find out what it must find.
int checkLogHeader(File& log, Bytes header)
{
    log.expected = {};
    const LogEnd end = readLogEnd(*log.other);
    if (end.frames == 0 || isMarkedClosed(header))
    {
        return SQLITE_OK;
    }
    // The sum of a header of zeros is right. A lost log has one: open() reserves room for it.
    if (bigEndian(header) == 0 || !isLogHeaderRight(header))
    {
        return SQLITE_CORRUPT;
    }
    if (std::memcmp(header + 16, end.salt.data(), end.salt.size()) != 0)
    {
        return SQLITE_OK; // of an older log
    }
    log.expected = end;
    sqlite3_int64 size = 0;
    const int code = log.call().xFileSize(log.inner(), &size);
    if (code != SQLITE_OK)
    {
        return code;
    }
    return size >= logHeaderSize + static_cast<sqlite3_int64>(end.frames) * frameSize ? SQLITE_OK : SQLITE_CORRUPT;
}

int readLog(sqlite3_file* base, void* target, int size, sqlite3_int64 offset)
{
    File& log = fileOf(base);
    const int code = log.call().xRead(log.inner(), target, size, offset);
    if (code != SQLITE_OK)
    {
        return code;
    }
    const auto* bytes = static_cast<Bytes>(target);
    if (offset == 0 && size == logHeaderSize)
    {
        return checkLogHeader(log, bytes);
    }
    const sqlite3_int64 start = size == indexPageSize ? offset - frameHeaderSize : offset;
    const sqlite3_int64 frame = (start - logHeaderSize) / frameSize;
    if (size == indexPageSize)
    {
        return checkFrame(log, start, nullptr, bytes);
    }
    if (size == frameSize && frame < static_cast<sqlite3_int64>(log.expected.frames)) // during a recovery
    {
        const bool isOfThisLog = std::memcmp(bytes + 8, log.expected.salt.data(), log.expected.salt.size()) == 0;
        return isOfThisLog ? checkFrame(log, start, bytes, bytes + frameHeaderSize) : SQLITE_CORRUPT;
    }
    return SQLITE_OK;
}

int writeLog(sqlite3_file* base, const void* bytes, int size, sqlite3_int64 offset)
{
    File& log = fileOf(base);
    const auto* header = static_cast<Bytes>(bytes);
    if (size == logHeaderSize)
    {
        log.written = {};
        if (!writeLogEnd(*log.other, {})) // before a new log overwrites the one that it belongs to
        {
            return SQLITE_IOERR_WRITE;
        }
    }
    else if (size == frameHeaderSize && bigEndian(header + 4) > 0)
    {
        if (const int code = reserve(*log.other, sqlite3_int64{bigEndian(header + 4)} * indexPageSize);
            code != SQLITE_OK)
        {
            return code;
        }
        std::memcpy(log.written.salt.data(), header + 8, log.written.salt.size());
        log.written.frames = static_cast<std::uint64_t>((offset - logHeaderSize) / frameSize + 1);
    }
    return log.call().xWrite(log.inner(), bytes, size, offset);
}

int syncLog(sqlite3_file* base, int flags)
{
    File& log = fileOf(base);
    const int code = log.call().xSync(log.inner(), flags);
    if (code == SQLITE_OK && log.written.frames > 0)
    {
        writeLogEnd(*log.other, log.written); // if that fails, an older end protects less
        log.written = {};
    }
    return code;
}

// SQLite empties the log when the last connection closes. Keep the room, and mark the log as empty in its header. The
// rest of the header stays, so that the mark cannot be confused with damage.
int truncateLog(sqlite3_file* base, sqlite3_int64 size)
{
    File& log = fileOf(base);
    if (size > 0)
    {
        return log.call().xTruncate(log.inner(), size);
    }
    constexpr std::array<unsigned char, 4> closed{};
    int code = log.call().xWrite(log.inner(), closed.data(), closed.size(), 0);
    sqlite3_int64 fileSize = 0;
    if (code == SQLITE_OK)
    {
        writeLogEnd(*log.other, {});
        code = log.call().xFileSize(log.inner(), &fileSize);
    }
    return code == SQLITE_OK && fileSize > keptLogSize ? log.call().xTruncate(log.inner(), keptLogSize) : code;
}

int sizeOfLog(sqlite3_file* base, sqlite3_int64* size)
{
    File& log = fileOf(base);
    const int code = log.call().xFileSize(log.inner(), size);
    const bool isLost = code == SQLITE_OK && *size < logHeaderSize && readLogEnd(*log.other).frames > 0;
    return isLost ? SQLITE_CORRUPT : code;
}

using Methods = sqlite3_io_methods;

constexpr Methods indexMethods = {2, // without the methods for memory mapping, which would bypass the checks
    close, readIndex, writeIndex, forward<&Methods::xTruncate>, forward<&Methods::xSync>, sizeOfIndex,
    forward<&Methods::xLock>, forward<&Methods::xUnlock>, forward<&Methods::xCheckReservedLock>, controlIndex,
    forward<&Methods::xSectorSize>, forward<&Methods::xDeviceCharacteristics>, mapShared, lockShared, barrier,
    forward<&Methods::xShmUnmap>, nullptr, nullptr};

constexpr Methods logMethods = {1, close, readLog, writeLog, truncateLog, syncLog, sizeOfLog, forward<&Methods::xLock>,
    forward<&Methods::xUnlock>, forward<&Methods::xCheckReservedLock>, forward<&Methods::xFileControl>,
    forward<&Methods::xSectorSize>, forward<&Methods::xDeviceCharacteristics>, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr};

bool hasMoved(File& index)
{
    int moved = 0;
    index.call().xFileControl(index.inner(), SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0;
}

int openChecked(sqlite3_vfs* below, const char* name, sqlite3_file* target, int flags, int* usedFlags)
{
    auto* file = new (target) File();
    file->name = name;
    if (isIrregular(name) || isIrregular(std::string(name) + logEndSuffix))
    {
        return SQLITE_CORRUPT;
    }
    const bool isLog = (flags & SQLITE_OPEN_WAL) != 0;
    File* const index = isLog ? &fileOf(sqlite3_database_file_object(name)) : nullptr;
    if (isLog && hasMoved(*index)) // the log belongs to the index that has replaced it
    {
        return SQLITE_READONLY_DBMOVED;
    }
    int code = below->xOpen(below, name, file->inner(), flags, usedFlags);
    if (code != SQLITE_OK)
    {
        return code;
    }
    if (isLog)
    {
        file->pMethods = &logMethods;
        file->other = index;
        index->other = file;
        reserve(*file, keptLogSize); // if there is no room yet, a later connection finds it
        return SQLITE_OK;
    }
    file->pMethods = &indexMethods;
    constexpr mode_t mode = 0600;
    file->logEnd = ::open((std::string(name) + logEndSuffix).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode);
    return file->logEnd >= 0 ? SQLITE_OK : SQLITE_CANTOPEN; // SQLite closes the file
}

int open(sqlite3_vfs* vfs, const char* name, sqlite3_file* target, int flags, int* usedFlags)
{
    auto* below = static_cast<sqlite3_vfs*>(vfs->pAppData);
    if ((flags & (SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_WAL)) == 0)
    {
        return below->xOpen(below, name, target, flags, usedFlags);
    }
    return guarded([&] { return openChecked(below, name, target, flags, usedFlags); });
}

} // namespace

const char* checkedVfs()
{
    static sqlite3_vfs vfs;
    static std::once_flag isRegistered;
    std::call_once(isRegistered,
        []
        {
            // All its functions but xOpen work the same with another first argument.
            sqlite3_vfs* const below = sqlite3_vfs_find("unix");
            vfs = *below;
            vfs.szOsFile += static_cast<int>(sizeof(File));
            vfs.pNext = nullptr;
            vfs.zName = "cloudprovider-checked";
            vfs.pAppData = below;
            vfs.xOpen = open;
            sqlite3_vfs_register(&vfs, 0);
        });
    return vfs.zName;
}

} // namespace storage::clients::local
