#include <storage/clients/common/VersionPins.hpp>

#include <storage/clients/common/KeyRules.hpp>
#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <chrono>

namespace storage::clients
{

namespace
{

constexpr std::size_t evictionBits = 1 << 20; // 128 KiB; few false hits until hundreds of thousands were evicted

std::size_t evictionBit(const std::string& key)
{
    return std::hash<std::string>()(key) % evictionBits;
}

/// Short, since a caller may wait on the thread that does the write.
constexpr std::chrono::seconds maxWriteWait{1};

} // namespace

VersionPins::Opening::Opening(VersionPins& pins, const std::string& key)
    : m_pins(pins)
{
    const std::lock_guard lock(pins.m_mutex);
    m_activity = pins.beginActivity(key);
    m_storedBefore = m_activity->second.stored;
}

VersionPins::Opening::~Opening()
{
    const std::lock_guard lock(m_pins.m_mutex);
    m_pins.endActivity(m_activity);
}

void VersionPins::Opening::opened(const Version& version)
{
    const std::lock_guard lock(m_pins.m_mutex);
    const auto& [key, activity] = *m_activity;
    const Version& current = activity.stored == m_storedBefore ? version : activity.last;
    const Pin* const known = m_pins.find(key);
    const bool isSame =
        known != nullptr && !known->isDoubtful && !current.tag.empty() && known->current.tag == current.tag;
    const std::uint64_t moves = isSame ? known->moves : 0;
    m_pins.pin(key, version.tag, current);
    if (isSame)
    {
        m_pins.m_pins.front().moves = moves; // what was fetched before belongs to this version, too
    }
}

VersionPins::Write::Write(VersionPins& pins, const std::string& key)
    : m_pins(pins)
{
    const std::lock_guard lock(pins.m_mutex);
    m_activity = pins.beginActivity(key);
    ++m_activity->second.writers;
}

VersionPins::Write::~Write()
{
    if (!m_hasSucceeded)
    {
        m_pins.doubt(m_activity->first);
    }
    const std::lock_guard lock(m_pins.m_mutex);
    --m_activity->second.writers;
    m_pins.endActivity(m_activity);
    m_pins.m_writeEnded.notify_all();
}

void VersionPins::Write::succeeded(const Version& version)
{
    const std::lock_guard lock(m_pins.m_mutex);
    auto& [key, activity] = *m_activity;
    m_hasSucceeded = true;
    ++activity.stored;
    activity.last = version;
    const Pin* const before = m_pins.find(key);
    m_pins.pin(key, before != nullptr ? std::string(before->opened) : version.tag, version);
    m_pins.m_writeEnded.notify_all();
}

void VersionPins::read(
    const std::string& key, const std::function<bool(const std::optional<Version>& version)>& tryRead)
{
    for (;;)
    {
        std::unique_lock lock(m_mutex);
        const Pin* const known = find(key);
        if (known == nullptr && wasEvicted(key))
        {
            throw cloudprovider::UnknownErrorException("Version unknown",
                "reading " + quoted(key) + ": too many other files were opened after this one; open it again");
        }
        const std::optional<Version> version = known == nullptr ? std::nullopt : std::optional(known->current);
        const std::uint64_t moves = known == nullptr ? 0 : known->moves;
        lock.unlock();
        if (tryRead(version))
        {
            return;
        }
        lock.lock();
        const auto hasMoved = [&]
        {
            const Pin* const now = find(key);
            return moves != (now == nullptr ? 0 : now->moves); // the tag may be the same again after two writes
        };
        m_writeEnded.wait_for(lock, maxWriteWait, [&] { return hasMoved() || !isWritten(key); });
        if (hasMoved())
        {
            continue;
        }
        const std::string what = "Object changed";
        const std::string detail =
            "reading " + quoted(key) + ": somebody has changed or removed the object since it was opened";
        if (isWritten(key))
        {
            throw TransientException(what, detail + ", perhaps the write that is in progress here");
        }
        throw cloudprovider::UnknownErrorException(what, detail);
    }
}

std::optional<Version> VersionPins::pinned(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const Pin* const known = find(key);
    return known == nullptr ? std::nullopt : std::optional(known->current);
}

std::optional<PinnedVersion> VersionPins::certain(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const Pin* const known = find(key);
    return known == nullptr || known->isDoubtful
               ? std::nullopt
               : std::optional(PinnedVersion{known->current.tag, known->current.size, known->moves});
}

void VersionPins::doubt(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    if (const auto known = m_byKey.find(key); known != m_byKey.end())
    {
        known->second->isDoubtful = true;
    }
}

void VersionPins::deleted(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    if (const auto known = m_byKey.find(key); known != m_byKey.end())
    {
        known->second->current.metadata = nullptr;
    }
}

bool VersionPins::descends(const std::string& key, const std::string& stored, const std::string& opened)
{
    const std::lock_guard lock(m_mutex);
    const Pin* const known = find(key);
    return stored == opened || (known != nullptr && known->opened == opened && known->current.tag == stored);
}

VersionPins::Activities::iterator VersionPins::beginActivity(const std::string& key)
{
    const auto activity = m_activities.try_emplace(key).first;
    ++activity->second.users;
    return activity;
}

void VersionPins::endActivity(Activities::iterator activity)
{
    if (--activity->second.users == 0)
    {
        m_activities.erase(activity);
    }
}

bool VersionPins::isWritten(const std::string& key) const
{
    const auto activity = m_activities.find(key);
    return activity != m_activities.end() && activity->second.writers != 0;
}

void VersionPins::pin(const std::string& key, const std::string& opened, const Version& current)
{
    if (const auto known = m_byKey.find(key); known != m_byKey.end())
    {
        m_pins.splice(m_pins.begin(), m_pins, known->second);
        m_pins.front().opened = opened;
        m_pins.front().current = current;
        m_pins.front().moves = ++m_moves;
        m_pins.front().isDoubtful = false;
        return;
    }
    Pins added{{key, opened, current, ++m_moves}};
    m_byKey.emplace(added.front().key, added.begin());
    m_pins.splice(m_pins.begin(), added); // keeps the iterator, and cannot fail when memory is short
    if (m_pins.size() > m_capacity)
    {
        m_evicted.resize(evictionBits);
        m_evicted[evictionBit(m_pins.back().key)] = true;
        m_byKey.erase(m_pins.back().key);
        m_pins.pop_back();
    }
}

const VersionPins::Pin* VersionPins::find(const std::string& key)
{
    const auto known = m_byKey.find(key);
    if (known == m_byKey.end())
    {
        return nullptr;
    }
    m_pins.splice(m_pins.begin(), m_pins, known->second);
    return &m_pins.front();
}

bool VersionPins::wasEvicted(const std::string& key) const
{
    return !m_evicted.empty() && m_evicted[evictionBit(key)];
}

} // namespace storage::clients
