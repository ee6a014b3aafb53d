#pragma once

#include <foundation/storage/provider/FileAttributes.hpp>
#include <foundation/storage/provider/FolderAttributes.hpp>

#include <string>
#include <utility>
#include <variant>

namespace foundation::storage::provider
{

/// One entry of a folder listing.
class FolderEntry
{
public:
    /// @param name  unescaped, relative to the listed folder: StorageIRI::getChild(name) of that folder is the entry's
    ///              IRI. May contain separators in a recursive listing; never ends with one.
    FolderEntry(std::u16string name, const FileAttributes& attributes)
        : m_name(std::move(name))
        , m_attributes(attributes)
    {
    }

    FolderEntry(std::u16string name, const FolderAttributes& attributes)
        : m_name(std::move(name))
        , m_attributes(attributes)
    {
    }

    const std::u16string& name() const noexcept { return m_name; }
    bool isFolder() const noexcept { return std::holds_alternative<FolderAttributes>(m_attributes); }

    /// @throws std::bad_variant_access if the entry is a folder
    const FileAttributes& fileAttributes() const { return std::get<FileAttributes>(m_attributes); }

    /// @throws std::bad_variant_access if the entry is a file
    const FolderAttributes& folderAttributes() const { return std::get<FolderAttributes>(m_attributes); }

    friend bool operator==(const FolderEntry&, const FolderEntry&) = default;

private:
    std::u16string m_name;
    std::variant<FileAttributes, FolderAttributes> m_attributes;
};

} // namespace foundation::storage::provider
