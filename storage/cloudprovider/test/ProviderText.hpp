#pragma once

#include <storage/cloudprovider/utils.hpp>

#include <foundation/storage/provider/IProvider.hpp>

#include <fl/i18n.hpp>

#include <string>

/// What a provider answers, as a line of text for tables.
namespace storage::cloudprovider
{

namespace fsp = foundation::storage::provider;

/// "-" for no time; seconds for a time soon after 1970 began, as the tests' stores have them; else "now".
inline std::string text(const boost::posix_time::ptime& time)
{
    if (time.is_not_a_date_time())
    {
        return "-";
    }
    const auto seconds = (time - utils::long2Ptime(0)).total_seconds();
    return seconds < 1000 ? std::to_string(seconds) : "now";
}

inline std::string text(bool answer)
{
    return answer ? "true" : "false";
}

inline std::string text(const fsp::ByteStreamPtr& stream)
{
    return stream ? "stream" : "no stream";
}

/// "[size]@time", and "!" for what cannot be written.
inline std::string text(const fsp::FileAttributes& file)
{
    return "[" + (file.size() ? std::to_string(*file.size()) : "") + "]@" + text(file.lastModified()) +
           (file.isWritable() ? "" : "!");
}

inline std::string text(const fsp::FolderAttributes& folder)
{
    return "@" + text(folder.lastModified()) + (folder.isWritable() ? "" : "!");
}

/// "file[1]@5" or "folder/@5".
inline std::string text(const fsp::FolderEntry& entry)
{
    return fl::i18n::ustring_to_utf8(entry.name()) +
           (entry.isFolder() ? "/" + text(entry.folderAttributes()) : text(entry.fileAttributes()));
}

/// The entries that are still to come.
inline std::string text(const fsp::FolderEntryIteratorPtr& listing)
{
    std::string all;
    while (listing->hasNext())
    {
        listing->next();
        all += (all.empty() ? "" : " ") + text(listing->getCurrent());
    }
    return all;
}

} // namespace storage::cloudprovider
