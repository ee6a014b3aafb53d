#include <storage/clients/common/RequiredVersions.hpp>

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>

namespace storage::clients
{

using namespace cloudprovider;

class RequiredVersions::Entry : public WriteConditions::Condition
{
public:
    Entry(RequiredVersions& versions, const std::string& key, const std::string& tag)
        : m_versions(versions)
        , m_entry(
              [&]
              {
                  const std::lock_guard lock(versions.m_mutex);
                  return versions.m_tags.emplace(key, tag);
              }())
    {
    }

    ~Entry() override
    {
        const std::lock_guard lock(m_versions.m_mutex);
        m_versions.m_tags.erase(m_entry);
    }

private:
    RequiredVersions& m_versions;
    const std::multimap<std::string, std::string>::iterator m_entry; // stays valid while other entries change
};

std::unique_ptr<WriteConditions::Condition> RequiredVersions::require(const std::string& key, const std::string& tag)
{
    return std::make_unique<Entry>(*this, key, tag);
}

std::optional<std::string> RequiredVersions::find(const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const auto [first, last] = m_tags.equal_range(key);
    if (first == last)
    {
        return std::nullopt;
    }
    if (std::any_of(first, last, [&](const auto& entry) { return entry.second != first->second; }))
    {
        throwOtherVersion(key, "two different tags");
    }
    return first->second;
}

void checkRequiredVersion(const std::string& key, const std::optional<std::string>& required, const std::string& stored)
{
    if (required && *required != stored)
    {
        throwOtherVersion(key, *required);
    }
}

void throwOtherVersion(const std::string& key, const std::string& required)
{
    if (required.empty())
    {
        throw ResourceAlreadyExistsException("an object " + quoted(key) + " exists already, and none was expected");
    }
    throw UnknownErrorException(
        "Object changed", "writing " + quoted(key) + ": the object is not the expected version any more");
}

} // namespace storage::clients
