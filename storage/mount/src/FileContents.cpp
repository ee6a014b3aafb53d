#include "FileContents.hpp"

#include "Failure.hpp"

#include <storage/clients/common/KeyRules.hpp>

#include <boost/icl/interval_set.hpp>

#include <algorithm>
#include <cerrno>
#include <limits>
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

bool FileContents::isUntouched() const
{
    const std::lock_guard lock(m_mutex);
    return m_isUntouched;
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
    if (m_isUnsent || m_isBusy)
    {
        return Match::Same;
    }
    const bool isSame = found.tag.empty()
                            ? m_before && m_before->size == found.size &&
                                  (!m_foundModified || !found.modified || isSameTime(*m_foundModified, *found.modified))
                            : m_before && m_before->tag == found.tag;
    if (!isSame && !mayReplace)
    {
        return Match::Refused;
    }
    m_foundModified = found.modified ? found.modified : m_foundModified;
    if (isSame)
    {
        return Match::Same;
    }
    replace(found.tag.empty() ? std::nullopt : std::optional(ObjectVersion{found.tag, found.size}), found.size);
    return Match::Replaced;
}

FileContents::Match FileContents::open(const std::string& key, bool mayReplace)
{
    if (isUnsent())
    {
        return Match::Same;
    }
    const ObjectVersion version = m_store.open(key);
    const std::lock_guard lock(m_mutex);
    if (m_isUnsent || m_isBusy || m_before == version)
    {
        return Match::Same;
    }
    if (m_before && !mayReplace)
    {
        return Match::Refused;
    }
    m_foundModified.reset();
    replace(version, version.size);
    return Match::Replaced;
}

/// Lock, and know which version is stored.
std::unique_lock<std::mutex> FileContents::lockKnown(const std::string& key)
{
    std::unique_lock lock(m_mutex);
    while (!isKnown())
    {
        lock.unlock();
        open(key, true);
        lock.lock();
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
        result -= m_local;
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
    makeLocal();
    m_isUnsent || m_isRemoved ? void() : record(key);
    m_isUntouched = false;
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
    }
    catch (...)
    {
        m_file->resize(m_size);
        throw;
    }
    if (offset < m_kept && size > 0)
    {
        const Extent written(offset, std::min(offset + size, m_kept));
        Extents all = m_written;
        all.add(written);
        m_isRemoved ? void() : m_unsent.wrote(m_id, *all.find(written));
        m_written = std::move(all);
        m_local.add(written);
    }
    m_size = std::max(m_size, offset + size);
    if (m_kept == 0)
    {
        m_frontier = offset <= m_frontier ? std::max(m_frontier, offset + size) : m_frontier;
        m_ahead ? m_ahead->changed(offset, size) : void();
        sendAhead(key, lock);
    }
}

void FileContents::resize(const std::string& key, std::uint64_t size)
{
    const std::unique_lock lock = beginChange(key);
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

/// Find out whether an earlier attempt has stored the file, although its response was lost or the process killed.
///
/// @return the stored version, if it has the right size and all bytes that were written here
std::optional<ObjectVersion> FileContents::findOurs(const std::string& key) const
try
{
    const ObjectVersion stored = m_store.open(key);
    Extents ours = m_written;
    m_kept < m_size ? void(ours.add(Extent(m_kept, m_size))) : void();
    bool isSame = stored.size == m_size;
    std::vector<char> here(std::min(pieceSize, m_size)), there(here.size());
    for (const Extent& part : ours)
    {
        for (std::uint64_t at = part.lower(); isSame && at < part.upper(); at += pieceSize)
        {
            const std::size_t size = std::min(pieceSize, part.upper() - at);
            m_file->read(at, here.data(), size);
            isSame = m_store.read(key, stored, at, there.data(), size) &&
                     std::equal(here.begin(), here.begin() + static_cast<std::ptrdiff_t>(size), there.begin());
        }
    }
    return isSame ? std::optional(stored) : std::nullopt;
}
catch (const std::exception&) // there is no object, or it cannot be read
{
    return std::nullopt;
}

void FileContents::send(const std::string& key)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    if (!m_isUnsent)
    {
        return;
    }
    ObjectVersion version;
    {
        const Busy busy(*this, lock);
        m_condition = m_condition ? std::move(m_condition) : m_store.require(key, m_before);
        const auto ahead = std::move(m_ahead); // another attempt sends the whole file
        m_hasAheadFailed = true;
        try
        {
            version = m_store.store(key, m_before, change(key, ahead.get()));
        }
        catch (const Failure& failure)
        {
            const auto ours = failure.error() == ESTALE ? findOurs(key) : std::nullopt;
            version = ours ? *ours : throw;
        }
        m_condition.reset();
    }
    m_unsent.forget(m_id);
    m_before = version;
    m_foundModified.reset();
    m_isNew = m_isUntouched = false;
    m_kept < m_size ? void(m_local.add(Extent(m_kept, m_size))) : void();
    m_kept = m_size;
    m_written.clear();
    m_isUnsent = m_hasAheadFailed = false;
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

bool FileContents::copyTo(const std::string& key, const std::filesystem::path& path)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    const Busy busy(*this, lock);
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

void FileContents::moved(const std::string& newKey, const std::optional<ObjectVersion>& version)
{
    const auto ahead = takeAhead(); // to another key
    const std::lock_guard lock(m_mutex);
    m_condition.reset();
    m_before = version;
    m_isNew = m_isNew && !version;
    m_isUnsent ? record(newKey) : void();
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

/// Waits until the contents may change, and returns with the lock.
std::unique_lock<std::mutex> FileContents::forgetUnsent()
{
    takeAhead().reset();
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isBusy; });
    m_condition.reset();
    if (m_isUnsent)
    {
        m_unsent.forget(m_id);
        m_isUnsent = false;
    }
    return lock;
}

void FileContents::remove()
{
    const auto lock = forgetUnsent();
    m_isRemoved = true;
}

void FileContents::forgetVersion()
{
    const auto lock = forgetUnsent();
    replace(std::nullopt, m_size);
}

} // namespace storage::mount
