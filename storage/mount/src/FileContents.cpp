#include "FileContents.hpp"

#include "Failure.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <boost/icl/interval_set.hpp>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <limits>
#include <new>
#include <utility>
#include <vector>

namespace storage::mount
{

namespace
{

constexpr std::uint64_t pieceSize = 4U << 20; // bytes that are read or copied at once

constexpr std::uint64_t endOfAll = std::numeric_limits<std::uint64_t>::max();

/// Stores tell times in seconds in one response, and in milliseconds in another.
bool isSameTime(Time one, Time other)
{
    return std::chrono::floor<std::chrono::seconds>(one) == std::chrono::floor<std::chrono::seconds>(other);
}

/// Hash ranges of a file. @return nullopt: `read` has returned false
std::optional<XXH128_hash_t> hashOf(
    const Extents& ranges, const std::function<bool(std::uint64_t offset, char* target, std::size_t size)>& read)
{
    const std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(), XXH3_freeState);
    if (!state)
    {
        throw std::bad_alloc();
    }
    XXH3_128bits_reset(state.get());
    std::vector<char> bytes(pieceSize);
    for (const Extent& range : ranges)
    {
        for (std::uint64_t at = range.lower(); at < range.upper(); at += pieceSize)
        {
            const std::size_t size = std::min(pieceSize, range.upper() - at);
            if (!read(at, bytes.data(), size))
            {
                return std::nullopt;
            }
            XXH3_128bits_update(state.get(), bytes.data(), size);
        }
    }
    return XXH3_128bits_digest(state.get());
}

} // namespace

/// The time in which the contents do not change, and the lock is not held.
class FileContents::Busy
{
public:
    Busy(FileContents& contents, std::unique_lock<std::mutex>& lock)
        : m_contents(contents)
        , m_lock(lock)
    {
        m_contents.m_isBusy = true;
        m_lock.unlock();
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;
    ~Busy()
    {
        m_lock.lock();
        m_contents.m_isBusy = false;
        m_contents.m_changed.notify_all();
    }

private:
    FileContents& m_contents;
    std::unique_lock<std::mutex>& m_lock;
};

std::unique_ptr<FileContents> FileContents::createNew(MountedStore& store, UnsentFiles& unsent, const std::string& key)
{
    auto contents = std::make_unique<FileContents>(store, unsent, Found());
    contents->m_isNew = contents->m_isUntouched = true;
    const std::lock_guard lock(contents->m_mutex);
    contents->makeLocal();
    contents->record(key);
    return contents;
}

FileContents::FileContents(MountedStore& store, UnsentFiles& unsent, const Found& found)
    : m_store(store)
    , m_unsent(unsent)
{
    m_foundModified = found.modified;
    replace(found.tag.empty() ? std::nullopt : std::optional(ObjectVersion{found.tag, found.size}), found.size);
}

FileContents::FileContents(MountedStore& store, UnsentFiles& unsent, const UnsentFile& file)
    : m_store(store)
    , m_unsent(unsent)
    , m_before(file.before)
    , m_isNew(!file.before)
    , m_written(file.written)
    , m_isUnsent(true)
    , m_isRecovered(true)
    , m_id(file.id)
    , m_file(std::make_unique<LocalFile>(unsent.pathOf(file.id), LocalFile::Mode::Open))
{
    m_size = m_file->size();
    m_kept = std::min(file.kept, m_size);
    m_written -= Extent(m_kept, endOfAll);
    m_local = m_written;
}

FileContents::~FileContents()
{
    if (m_file && !m_isUnsent)
    {
        std::error_code ignored;
        std::filesystem::remove(m_unsent.pathOf(m_id), ignored);
    }
}

std::uint64_t FileContents::size() const
{
    const std::lock_guard lock(m_mutex);
    return m_size;
}

bool FileContents::isUnsent() const
{
    const std::lock_guard lock(m_mutex);
    return m_isUnsent;
}

bool FileContents::isNew() const
{
    const std::lock_guard lock(m_mutex);
    return m_isNew;
}

bool FileContents::needsFlush() const
{
    const std::lock_guard lock(m_mutex);
    return m_hasLostBytes || (m_isUnsent && !m_isUntouched);
}

std::optional<ObjectVersion> FileContents::stored() const
{
    const std::lock_guard lock(m_mutex);
    return m_before;
}

void FileContents::replace(std::optional<ObjectVersion> version, std::uint64_t size)
{
    if (m_file)
    {
        std::error_code ignored;
        std::filesystem::remove(m_unsent.pathOf(m_id), ignored);
    }
    m_file.reset();
    m_local.clear();
    m_written.clear();
    m_before = std::move(version);
    m_isNew = false;
    m_size = size;
    m_kept = size;
    m_frontier = 0;
    m_hasAheadFailed = false;
}

FileContents::Match FileContents::found(const Found& found, bool mayReplace)
{
    const std::lock_guard lock(m_mutex);
    if (m_isUnsent || m_isBusy || m_isSuperseded)
    {
        return Match::Same;
    }
    // A listing tells no tag. One of the same size may be another version if we do not know the time of ours, or if two
    // may have been stored within the same second.
    const bool hasSameSize = m_before && m_before->size == found.size;
    const bool isSameListed =
        hasSameSize &&
        (m_foundModified && found.modified ? isSameTime(*m_foundModified, *found.modified) &&
                                                 (!mayReplace || *found.modified + std::chrono::seconds(2) < now())
                                           : !mayReplace || !found.modified);
    const bool isSame = found.tag.empty() ? isSameListed : m_before && m_before->tag == found.tag;
    if (!isSame && !mayReplace)
    {
        m_isSuperseded = true;
        return Match::Refused;
    }
    if (isSame)
    {
        const bool isTimeOfOurs = m_foundModified || !found.tag.empty();
        m_foundModified = found.modified && isTimeOfOurs ? found.modified : m_foundModified;
        return Match::Same;
    }
    m_foundModified = found.modified;
    replace(found.tag.empty() ? std::nullopt : std::optional(ObjectVersion{found.tag, found.size}), found.size);
    return Match::Replaced;
}

bool FileContents::supersede()
{
    const std::lock_guard lock(m_mutex);
    if (m_isUnsent || m_isBusy)
    {
        return false;
    }
    m_isSuperseded = true;
    return true;
}

bool FileContents::isSuperseded() const
{
    const std::lock_guard lock(m_mutex);
    return m_isSuperseded;
}

/// Lock, and know which version is stored.
std::unique_lock<std::mutex> FileContents::lockKnown(const std::string& key)
{
    std::unique_lock lock(m_mutex);
    while (!isKnown())
    {
        lock.unlock();
        const ObjectVersion version = m_store.open(key);
        lock.lock();
        isKnown() || m_isBusy ? void() : replace(version, version.size);
    }
    return lock;
}

Extents FileContents::missing(std::uint64_t offset, std::uint64_t size) const
{
    Extents result;
    const std::uint64_t end = std::min(offset + size, m_kept);
    if (offset < end)
    {
        result.add(Extent(offset, end));
        const auto [first, last] = m_local.equal_range(Extent(offset, end));
        std::for_each(first, last, [&](const Extent& local) { result -= local; });
    }
    return result;
}

std::size_t FileContents::read(const std::string& key, std::uint64_t offset, char* target, std::size_t size)
{
    for (;;)
    {
        std::unique_lock lock = lockKnown(key);
        const std::size_t count = offset < m_size ? std::min<std::uint64_t>(size, m_size - offset) : 0;
        const auto before = m_before;
        const Extents stored = missing(offset, count);
        if (m_file)
        {
            m_file->read(offset, target, count);
        }
        lock.unlock();
        const bool isRead = std::ranges::all_of(stored,
            [&](const Extent& part) {
                return m_store.read(
                    key, *before, part.lower(), target + (part.lower() - offset), part.upper() - part.lower());
            });
        if (isRead)
        {
            return count;
        }
        lock.lock();
        m_changed.wait(lock, [this] { return !m_isBusy; }); // send() may have stored a new version
        if (m_before == before)
        {
            throw Failure(ESTALE, "another program has replaced or removed " + clients::quoted(key));
        }
    }
}

/// Read all of a range while nothing changes.
void FileContents::readNow(const std::string& key, std::uint64_t offset, char* target, std::size_t size) const
{
    m_file->read(offset, target, size);
    for (const Extent& part : missing(offset, size))
    {
        if (!m_store.read(key, *m_before, part.lower(), target + (part.lower() - offset), part.upper() - part.lower()))
        {
            throw Failure(ESTALE, "another program has replaced or removed " + clients::quoted(key));
        }
    }
}

/// Requires the lock.
void FileContents::makeLocal()
{
    if (!m_file)
    {
        m_id = m_unsent.nextId();
        auto file = std::make_unique<LocalFile>(m_unsent.pathOf(m_id), LocalFile::Mode::Create);
        file->resize(m_size);
        m_file = std::move(file);
    }
}

/// Requires the lock.
void FileContents::record(const std::string& key)
{
    m_unsent.put({m_id, key, m_before, m_kept, {}});
    m_isUnsent = true;
}

/// Wait until the contents may change, and record that they do.
std::unique_lock<std::mutex> FileContents::beginChange(const std::string& key)
{
    std::unique_lock lock = lockKnown(key);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    if (m_isSuperseded)
    {
        throw Failure(ESTALE, "another program has replaced or removed " + clients::quoted(key));
    }
    makeLocal();
    m_isUnsent || m_isRemoved ? void() : record(key);
    m_isUntouched = false;
    m_attempt ? void(m_attempt->isCurrent = false) : void();
    return lock;
}

/// Send the parts that are full, if the file is large enough. Requires the lock, and releases it meanwhile.
void FileContents::sendAhead(const std::string& key, std::unique_lock<std::mutex>& lock)
{
    if (m_isRemoved || m_hasAheadFailed || m_frontier < 2 * m_store.partSizeAhead() ||
        (m_ahead && !m_ahead->canSend(m_frontier)))
    {
        return;
    }
    const Busy busy(*this, lock);
    try
    {
        m_condition = m_condition ? std::move(m_condition) : m_store.require(key, m_before);
        m_ahead = m_ahead ? std::move(m_ahead) : m_store.uploadAhead(key);
        while (m_ahead->canSend(m_frontier))
        {
            m_ahead->sendNext([this, key](std::uint64_t offset, char* target, std::size_t size)
                { readNow(key, offset, target, size); });
        }
    }
    catch (const std::exception&) // close tries again and reports it
    {
        m_ahead.reset();
        m_hasAheadFailed = true;
    }
}

void FileContents::write(const std::string& key, std::uint64_t offset, const char* bytes, std::size_t size)
{
    std::unique_lock lock = beginChange(key);
    try
    {
        m_file->write(offset, bytes, size);
        if (offset < m_kept && size > 0)
        {
            const Extent written(offset, std::min(offset + size, m_kept));
            m_written.add(written);
            m_local.add(written);
            m_isRemoved ? void() : m_unsent.wrote(m_id, *m_written.find(written));
        }
    }
    catch (...)
    {
        m_file->resize(m_size);
        throw;
    }
    m_size = std::max(m_size, offset + size);
    if (m_kept == 0)
    {
        m_frontier = offset <= m_frontier ? std::max(m_frontier, offset + size) : m_frontier;
        m_ahead ? m_ahead->changed(offset, size) : void();
        sendAhead(key, lock);
    }
}

void FileContents::resize(const std::string& key, std::uint64_t size, bool isOpening)
{
    const std::unique_lock lock = beginChange(key);
    m_isUntouched = isOpening;
    m_file->resize(size);
    m_size = size;
    m_frontier = std::min(m_frontier, size);
    m_ahead ? m_ahead->cut(size) : void();
    if (size < m_kept)
    {
        m_kept = size;
        m_local -= Extent(size, endOfAll);
        m_written -= Extent(size, endOfAll);
        m_isRemoved ? void() : record(key);
    }
}

/// How the unsent contents differ from the stored version. Used while they do not change.
MountedStore::Change FileContents::change(const std::string& key, UploadAhead* ahead) const
{
    return {m_size, m_kept,
        [this](std::uint64_t offset, std::uint64_t size)
        { return boost::icl::intersects(m_written, extent(offset, size)); },
        boost::icl::cardinality(m_written) + (m_size - m_kept),
        [this, key](std::uint64_t offset, char* target, std::size_t size) { readNow(key, offset, target, size); },
        ahead};
}

/// Describe what an attempt to send the file now would change. Used while it does not change.
FileContents::Attempt FileContents::describe() const
{
    Attempt attempt{m_size, m_written, {}};
    m_kept < m_size ? void(attempt.bytes.add(Extent(m_kept, m_size))) : void();
    attempt.hash = hashOf(attempt.bytes,
        [&](std::uint64_t offset, char* target, std::size_t size)
        {
            m_file->read(offset, target, size);
            return true;
        }).value();
    return attempt;
}

/// Find out whether an earlier attempt has stored the file, although its response was lost or the process killed.
///
/// @return the stored version, if it has the size and all the bytes of the attempt
std::optional<ObjectVersion> FileContents::findOurs(const std::string& key) const
try
{
    if (!m_attempt && !m_isRecovered)
    {
        return std::nullopt;
    }
    const Attempt attempt = m_attempt ? *m_attempt : describe();
    const ObjectVersion stored = m_store.open(key);
    const bool isComparable = !attempt.bytes.empty() || attempt.size == 0; // otherwise any version would be ours
    if (!isComparable || stored.size != attempt.size)
    {
        return std::nullopt;
    }
    const auto hash = hashOf(attempt.bytes, [&](std::uint64_t offset, char* target, std::size_t size)
        { return m_store.read(key, stored, offset, target, size); });
    return hash && XXH128_isEqual(*hash, attempt.hash) != 0 ? std::optional(stored) : std::nullopt;
}
catch (const cloudprovider::ResourceNotFoundException&)
{
    return std::nullopt;
}

/// Store the file while it does not change. Requires the lock, and releases it meanwhile.
///
/// @return nullopt: an earlier attempt has been found, but more was written since
std::optional<ObjectVersion> FileContents::storeNow(const std::string& key, std::unique_lock<std::mutex>& lock)
{
    std::optional<ObjectVersion> ours;
    {
        const Busy busy(*this, lock);
        const auto ahead = std::move(m_ahead); // another attempt sends the whole file
        m_hasAheadFailed = true;
        try
        {
            m_condition = m_condition ? std::move(m_condition) : m_store.require(key, m_before);
            return m_store.store(key, m_before, change(key, ahead.get()));
        }
        catch (...)
        {
            ours = Failure::current().error() == ESTALE ? findOurs(key) : std::nullopt;
            if (!ours)
            {
                m_attempt && m_attempt->isCurrent ? void() : void(m_attempt = describe());
                throw;
            }
        }
    }
    const bool isAll = !m_attempt || m_attempt->isCurrent;
    m_before = ours;
    m_isNew = m_isRecovered = false;
    m_condition.reset();
    m_attempt.reset();
    m_local = m_written; // other bytes may be of another version
    record(key);
    return isAll ? ours : std::nullopt;
}

/// Requires the lock.
void FileContents::setSent(const ObjectVersion& version)
{
    m_unsent.forget(m_id);
    m_condition.reset();
    m_attempt.reset();
    m_before = version;
    m_foundModified.reset();
    m_isNew = m_isUntouched = m_isRecovered = false;
    m_kept < m_size ? void(m_local.add(Extent(m_kept, m_size))) : void();
    m_kept = m_size;
    m_written.clear();
    m_isUnsent = m_hasAheadFailed = false;
}

bool FileContents::send(const std::string& key)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    if (m_hasLostBytes)
    {
        throw Failure(ESTALE, "what was written to " + clients::quoted(key) + " was kept as a conflict");
    }
    while (m_isUnsent)
    {
        if (const auto version = storeNow(key, lock))
        {
            setSent(*version);
            return true;
        }
    }
    return false;
}

void FileContents::settle(const std::string& key)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    if (!m_isNew || (!m_attempt && !m_isRecovered))
    {
        return;
    }
    std::optional<ObjectVersion> ours;
    {
        const Busy busy(*this, lock);
        ours = findOurs(key);
    }
    if (ours)
    {
        m_before = ours;
        m_isNew = m_isRecovered = false;
        m_condition.reset();
        m_attempt.reset();
        record(key);
    }
}

void FileContents::load(const std::string& key)
{
    std::unique_lock lock = lockKnown(key);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    makeLocal();
    {
        const Busy busy(*this, lock);
        std::vector<char> bytes(std::min(pieceSize, m_size));
        for (const Extent& part : missing(0, m_size))
        {
            for (std::uint64_t at = part.lower(); at < part.upper(); at += pieceSize)
            {
                const std::size_t size = std::min(pieceSize, part.upper() - at);
                readNow(key, at, bytes.data(), size);
                m_file->write(at, bytes.data(), size);
            }
        }
    }
    m_kept > 0 ? void(m_local.add(Extent(0, m_kept))) : void();
}

/// Used while nothing changes.
bool FileContents::copyTo(const std::string& key, const std::filesystem::path& path) const
{
    LocalFile copy(path, LocalFile::Mode::Create);
    copy.resize(m_size);
    bool isComplete = true;
    std::vector<char> bytes(std::min(pieceSize, m_size));
    for (std::uint64_t at = 0; at < m_size; at += pieceSize)
    {
        const std::size_t size = std::min(pieceSize, m_size - at);
        try
        {
            readNow(key, at, bytes.data(), size);
        }
        catch (const Failure&)
        {
            isComplete = false;
            m_file->read(at, bytes.data(), size);
        }
        copy.write(at, bytes.data(), size);
    }
    return isComplete;
}

std::optional<bool> FileContents::moveToConflict(const std::string& key, const std::filesystem::path& path)
{
    takeAhead().reset();
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    if (!m_isUnsent)
    {
        return std::nullopt;
    }
    bool isComplete = false;
    {
        const Busy busy(*this, lock);
        isComplete = copyTo(key, path);
    }
    m_unsent.forget(m_id);
    m_condition.reset();
    m_isUnsent = false;
    m_isSuperseded = m_hasLostBytes = true;
    return isComplete;
}

void FileContents::moved(const std::string& newKey, const std::optional<MountedStore::Copy>& copy, bool mayReplace)
{
    const auto ahead = takeAhead(); // to another key
    const std::lock_guard lock(m_mutex);
    m_condition.reset();
    m_attempt.reset();
    m_foundModified.reset();
    if (copy && m_before && m_before->tag == copy->sourceTag)
    {
        m_before = copy->target;
    }
    else if (copy && !m_isUnsent && mayReplace)
    {
        replace(copy->target, copy->target.size);
    }
    // Otherwise another program has changed the file, which is found when it is read or sent.
    m_isUnsent ? record(newKey) : void();
}

void FileContents::movedUnsent(const std::string& newKey, const std::optional<ObjectVersion>& replaced)
{
    const auto ahead = takeAhead(); // to another key
    const std::lock_guard lock(m_mutex);
    m_condition.reset();
    m_attempt.reset();
    m_before = replaced;
    m_isNew = !replaced;
    record(newKey);
}

void FileContents::trim()
{
    const std::lock_guard lock(m_mutex);
    if (m_file && m_before && !m_isUnsent && !m_isBusy)
    {
        replace(m_before, m_size);
    }
}

/// Return what was sent ahead, so that it is discarded without the lock.
std::unique_ptr<UploadAhead> FileContents::takeAhead()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    return std::move(m_ahead);
}

void FileContents::remove()
{
    takeAhead().reset();
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    m_condition.reset();
    m_isUnsent ? m_unsent.forget(m_id) : void();
    m_isUnsent = false;
    m_isRemoved = true;
}

} // namespace storage::mount
