#include "KnownVersions.hpp"

namespace storage::clients::s3
{

KnownVersions::Observation::Observation(KnownVersions& versions, const std::string& key)
    : m_versions(versions)
{
    const std::lock_guard lock(versions.m_mutex);
    m_activity = versions.beginActivity(key);
    m_finishedBefore = m_activity->second.finished;
    m_startedDuringWrite = m_activity->second.writers > 0;
}

KnownVersions::Observation::~Observation()
{
    const std::lock_guard lock(m_versions.m_mutex);
    m_versions.endActivity(m_activity);
}

bool KnownVersions::Observation::sawWrite() const
{
    const std::lock_guard lock(m_versions.m_mutex);
    return sawWriteLocked();
}

bool KnownVersions::Observation::sawWriteLocked() const
{
    const Activity& now = m_activity->second;
    return m_startedDuringWrite || now.writers > 0 || now.finished != m_finishedBefore;
}

void KnownVersions::Observation::opened(const Version& version)
{
    const std::lock_guard lock(m_versions.m_mutex);
    if (sawWriteLocked())
    {
        m_versions.forget(m_activity->first);
        return;
    }
    m_versions.remember(m_activity->first, version.tag, version);
}

KnownVersions::Write::Write(KnownVersions& versions, const std::string& key)
    : m_versions(versions)
{
    const std::lock_guard lock(versions.m_mutex);
    m_activity = versions.beginActivity(key);
    ++m_activity->second.writers;
}

KnownVersions::Write::~Write()
{
    const std::lock_guard lock(m_versions.m_mutex);
    if (!m_settled)
    {
        m_versions.forget(m_activity->first);
    }
    --m_activity->second.writers;
    ++m_activity->second.finished;
    m_versions.endActivity(m_activity);
}

void KnownVersions::Write::succeeded(const Version& version)
{
    const std::lock_guard lock(m_versions.m_mutex);
    m_settled = true;
    const std::string& key = m_activity->first;
    if (const Known* const before = m_versions.find(key))
    {
        m_versions.remember(key, std::string(before->opened), version);
    }
}

std::optional<Version> KnownVersions::current(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const Known* const known = find(key);
    return known == nullptr ? std::nullopt : std::optional(known->current);
}

bool KnownVersions::descends(const std::string& key, const std::string& stored, const std::string& opened)
{
    const std::lock_guard lock(m_mutex);
    const Known* const known = find(key);
    return stored == opened || (known != nullptr && known->opened == opened && known->current.tag == stored);
}

KnownVersions::Activities::iterator KnownVersions::beginActivity(const std::string& key)
{
    const auto activity = m_activities.try_emplace(key).first;
    ++activity->second.watchers;
    return activity;
}

void KnownVersions::endActivity(Activities::iterator activity)
{
    if (--activity->second.watchers == 0)
    {
        m_activities.erase(activity);
    }
}

void KnownVersions::remember(const std::string& key, const std::string& opened, const Version& current)
{
    forget(key);
    m_uses.push_front(key);
    m_known.emplace(key, Known{opened, current, m_uses.begin()});
    if (m_known.size() > m_capacity)
    {
        m_known.erase(m_uses.back());
        m_uses.pop_back();
    }
}

void KnownVersions::forget(const std::string& key)
{
    const auto known = m_known.find(key);
    if (known != m_known.end())
    {
        m_uses.erase(known->second.use);
        m_known.erase(known);
    }
}

const KnownVersions::Known* KnownVersions::find(const std::string& key)
{
    const auto known = m_known.find(key);
    if (known == m_known.end())
    {
        return nullptr;
    }
    m_uses.splice(m_uses.begin(), m_uses, known->second.use);
    return &known->second;
}

} // namespace storage::clients::s3
