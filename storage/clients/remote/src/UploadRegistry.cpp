#include "UploadRegistry.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <fmt/format.h>

#include <random>
#include <utility>

namespace storage::clients
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

UploadRegistry::UploadRegistry()
    : m_prefix(newPrefix())
{
}

std::string UploadRegistry::begin(const std::string& key, const std::string& tag, const std::string& sourceKey)
{
    const std::string base = versionOf(tag).value_or("");
    const std::lock_guard lock(m_mutex);
    std::string id = m_prefix + std::to_string(++m_count);
    m_open.emplace(id, std::make_shared<Upload>(id, key, base, tag.empty(), sourceKey));
    return id;
}

UploadPtr UploadRegistry::find(const std::string& key, const std::string& id) const
{
    const std::lock_guard lock(m_mutex);
    const auto open = m_open.find(id);
    if (open == m_open.end() || open->second->key() != key)
    {
        throw cloudprovider::ResourceNotFoundException("no upload " + quoted(id) + " of " + quoted(key) + " is open");
    }
    return open->second;
}

std::vector<UploadPtr> UploadRegistry::open() const
{
    std::vector<UploadPtr> uploads;
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, upload] : m_open)
    {
        uploads.push_back(upload);
    }
    return uploads;
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
    for (const UploadPtr& upload : open())
    {
        if (upload->storeId() == storeId) // waits for one that is being opened
        {
            return upload->id();
        }
    }
    return std::nullopt;
}

std::optional<std::string> UploadRegistry::versionOf(const std::string& partTag) const
{
    if (!isOwn(partTag))
    {
        return partTag;
    }
    const std::string id = partTag.substr(0, partTag.find('.'));
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

} // namespace storage::clients
