#include "UploadRegistry.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <random>
#include <utility>

namespace storage::clients::s3
{

namespace
{

constexpr std::size_t maxFinished = 4'096; // a file that is open has usually ended its last upload recently

std::string newPrefix()
{
    std::random_device random;
    return fmt::format("upload-{:08x}{:08x}-", random(), random());
}

} // namespace

std::string Upload::ensureStoreId(const std::function<std::string()>& open)
{
    const unsigned failedBefore = m_failedOpenings; // before waiting for the lock
    const std::lock_guard lock(m_openingMutex);
    if (!m_storeId.empty())
    {
        return m_storeId;
    }
    if (m_failedOpenings != failedBefore)
    {
        std::rethrow_exception(m_openingFailure);
    }
    try
    {
        return m_storeId = open();
    }
    catch (...)
    {
        m_openingFailure = std::current_exception();
        ++m_failedOpenings;
        throw;
    }
}

std::string Upload::storeId() const
{
    const std::lock_guard lock(m_openingMutex);
    return m_storeId;
}

void Upload::setPart(std::size_t index, Part part)
{
    const std::lock_guard lock(m_mutex);
    m_parts[index] = std::move(part);
    m_done.clear();
}

std::string Upload::spoolPart(std::size_t index, const std::string& bytes)
{
    {
        const std::lock_guard lock(m_mutex);
        m_parts.erase(index); // its bytes may be lost if writing the new ones fails
    }
    m_spool.write(index, bytes);
    const std::lock_guard lock(m_mutex);
    std::string tag = fmt::format("spooled-{}", ++m_spoolCount);
    m_parts[index] = {PartPlace::Spooled, tag, bytes.size()};
    m_done.clear();
    return tag;
}

void Upload::recordDone(const PlannedPart& part, const std::string& tag)
{
    const std::lock_guard lock(m_mutex);
    m_done[part.number] = {part, tag};
}

std::optional<std::string> Upload::doneTag(const PlannedPart& part) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_done.find(part.number);
    return found == m_done.end() || found->second.first != part ? std::nullopt : std::optional(found->second.second);
}

std::size_t Upload::doneCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_done.size();
}

void Upload::forgetDone()
{
    const std::lock_guard lock(m_mutex);
    m_done.clear();
}

std::optional<Upload::Part> Upload::part(std::size_t index) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_parts.find(index);
    return found == m_parts.end() ? std::nullopt : std::optional(found->second);
}

bool Upload::isOutcomeUnknown() const
{
    const std::lock_guard lock(m_mutex);
    return m_isOutcomeUnknown;
}

void Upload::setOutcomeUnknown()
{
    const std::lock_guard lock(m_mutex);
    m_isOutcomeUnknown = true;
}

UploadRegistry::UploadRegistry()
    : m_prefix(newPrefix())
{
}

std::string UploadRegistry::begin(const std::string& key, const std::string& tag)
{
    const std::string base = versionOf(tag).value_or("");
    const std::lock_guard lock(m_mutex);
    std::string id = m_prefix + std::to_string(++m_count);
    m_open.emplace(id, std::make_shared<Upload>(key, base, tag.empty()));
    return id;
}

std::shared_ptr<Upload> UploadRegistry::find(const std::string& key, const std::string& id) const
{
    const std::lock_guard lock(m_mutex);
    const auto open = m_open.find(id);
    if (open == m_open.end() || open->second->key() != key)
    {
        throw cloudprovider::ResourceNotFoundException("no upload " + quoted(id) + " of " + quoted(key) + " is open");
    }
    return open->second;
}

void UploadRegistry::finish(const std::string& id, const std::string& version)
{
    const std::lock_guard lock(m_mutex);
    m_open.erase(id);
    if (m_finished.emplace(id, version).second)
    {
        m_finishedInOrder.push_back(id);
    }
    if (m_finished.size() > maxFinished)
    {
        m_finished.erase(m_finishedInOrder.front());
        m_finishedInOrder.pop_front();
    }
}

std::optional<std::string> UploadRegistry::ownIdOf(const std::string& storeId) const
{
    const auto open = [&]
    {
        const std::lock_guard lock(m_mutex);
        return m_open;
    }();
    for (const auto& [id, upload] : open) // waits for one that is being opened
    {
        if (upload->storeId() == storeId)
        {
            return id;
        }
    }
    return std::nullopt;
}

std::optional<std::string> UploadRegistry::versionOf(const std::string& tag) const
{
    if (!isOwn(tag))
    {
        return tag;
    }
    const std::string id = tag.substr(0, tag.find(':'));
    const std::lock_guard lock(m_mutex);
    if (const auto finished = m_finished.find(id); finished != m_finished.end())
    {
        return finished->second;
    }
    if (const auto open = m_open.find(id); open != m_open.end())
    {
        return open->second->base();
    }
    return std::nullopt;
}

} // namespace storage::clients::s3
