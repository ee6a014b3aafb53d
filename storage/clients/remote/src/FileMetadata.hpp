#pragma once

#include <storage/clients/common/VersionPins.hpp>
#include <storage/clients/remote/RemoteSettings.hpp>
#include <storage/clients/remote/RemoteStore.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace storage::clients
{

inline std::shared_ptr<const ObjectMetadata> fieldsOf(const std::shared_ptr<const WrittenMetadata>& metadata)
{
    return {metadata, &metadata->fields};
}

/// Chooses the metadata of the objects that are written. Safe for concurrent calls.
class FileMetadata
{
public:
    explicit FileMetadata(const RemoteSettings& settings)
        : m_ofNewFile(settings.newMetadata)
    {
    }

    /// @param before     what the file was before the write; nullopt, or without metadata: the file is new
    /// @param condition  of the write; the file is new if there must be none
    /// @return not null
    std::shared_ptr<const WrittenMetadata> after(
        const std::optional<Version>& before, const WriteCondition& condition, const std::string& key) const
    {
        const bool mustBeNew = condition && condition->empty();
        if (before && before->metadata && !mustBeNew)
        {
            return std::make_shared<const WrittenMetadata>(WrittenMetadata{*before->metadata, key});
        }
        return std::make_shared<const WrittenMetadata>(
            WrittenMetadata{m_ofNewFile ? m_ofNewFile(key) : ObjectMetadata(), ""});
    }

private:
    const std::function<ObjectMetadata(const std::string& key)> m_ofNewFile;
};

} // namespace storage::clients
