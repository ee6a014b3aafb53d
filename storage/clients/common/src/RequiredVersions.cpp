#include <storage/clients/common/RequiredVersions.hpp>

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>

namespace storage::clients
{

using namespace cloudprovider;

namespace
{

[[noreturn]] void throwChanged(const std::string& key)
{
    throw UnknownErrorException(
        "Object changed", "writing " + quoted(key) + ": the object is not the expected version any more");
}

} // namespace

class RequiredVersions::Entry : public WriteConditions::Condition
{
public:
    Entry(RequiredVersions& versions, const std::string& key, const std::string& tag)
        : m_versions(versions)
        , m_entry(
              [&]
              {
                  const std::lock_guard lock(versions.m_mutex);
                  return versions.m_required.emplace(key, Required{tag});
              }())
    {
    }

    ~Entry() override
    {
        const std::lock_guard lock(m_versions.m_mutex);
        m_versions.m_required.erase(m_entry);
    }

private:
    RequiredVersions& m_versions;
    const ByKey::iterator m_entry; // stays valid while other entries change
};

std::unique_ptr<WriteConditions::Condition> RequiredVersions::require(const std::string& key, const std::string& tag)
{
    return std::make_unique<Entry>(*this, key, tag);
}

std::optional<std::string> RequiredVersions::find(const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const auto [first, last] = m_required.equal_range(key);
    if (first == last)
    {
        return std::nullopt;
    }
    if (std::any_of(
            first, last, [&required = first->second](const auto& entry) { return entry.second.tag != required.tag; }))
    {
        throwChanged(key);
    }
    return first->second.tag;
}

void RequiredVersions::setOutcomeUnknown(const std::string& key)
{
    const std::lock_guard lock(m_mutex);
    const auto [first, last] = m_required.equal_range(key);
    std::for_each(first, last, [](auto& entry) { entry.second.isOutcomeUnknown = true; });
}

bool RequiredVersions::isOutcomeUnknown(const std::string& key) const
{
    const std::lock_guard lock(m_mutex);
    const auto [first, last] = m_required.equal_range(key);
    return std::any_of(first, last, [](const auto& entry) { return entry.second.isOutcomeUnknown; });
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
    throwChanged(key);
}

} // namespace storage::clients
