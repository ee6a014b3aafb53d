#pragma once

#include <storage/clients/common/WriteConditions.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::clients
{

/// The requirements of a client's living Conditions, for clients that implement WriteConditions. Safe for concurrent
/// calls.
class RequiredVersions
{
public:
    /// See WriteConditions::requireVersion(). Destroy the result before this.
    [[nodiscard]] std::unique_ptr<WriteConditions::Condition> require(const std::string& key, const std::string& tag);

    /// Get the tag that a write of the key requires, as in requireVersion(); nullopt: any version or none.
    ///
    /// @throws UnknownErrorException when two requirements differ, so that no object has both versions
    std::optional<std::string> find(const std::string& key) const;

    /// Remember that the response to a write of the key was lost, until its Conditions end. A retry may find the
    /// version that the write has stored.
    void setOutcomeUnknown(const std::string& key);
    bool isOutcomeUnknown(const std::string& key) const;

private:
    struct Required
    {
        std::string tag;
        bool isOutcomeUnknown = false;
    };
    using ByKey = std::multimap<std::string, Required>;
    class Entry;

    mutable std::mutex m_mutex; // innermost
    ByKey m_required;           // guarded by m_mutex; one entry per living Condition
};

/// Throw unless a write may replace this version, as WriteConditions::requireVersion() says.
///
/// @param required  nullopt: the write may replace any version
/// @param stored    the tag of the object under the key; empty: there is none
void checkRequiredVersion(
    const std::string& key, const std::optional<std::string>& required, const std::string& stored);

/// Throw what checkRequiredVersion() throws for a version other than the required one.
[[noreturn]] void throwOtherVersion(const std::string& key, const std::string& required);

} // namespace storage::clients
