#pragma once

#include "ErrorTranslation.hpp"
#include "LogRecords.hpp"

#include <storage/cloudprovider/CloudClient.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/utils.hpp>

#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <fl/i18n.hpp>

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace storage::cloudprovider
{

/// Pages through the keys below a folder as the caller advances. The derived class T turns each key into entries.
///
/// When the caller takes the last pending entry, pages are fetched until one yields an entry, and no further. A clone
/// shares only the client with its original. One thread at a time may use an iterator.
template <typename T>
class AbstractCloudEntryIterator : public foundation::storage::provider::IClonableFolderEntryIterator<T>
{
public:
    foundation::storage::provider::FolderEntry getCurrent() const override { return m_current.value(); }

    bool hasNext() const override { return !m_pending.empty(); }

    void next() override
    {
        m_current.emplace(std::move(m_pending.front()));
        m_pending.pop_front();
        if (m_pending.empty())
        {
            fetch(false);
        }
    }

protected:
    AbstractCloudEntryIterator(foundation::storage::provider::StorageIRI folder, CloudClientSharedPtr store)
        : m_iri(std::move(folder))
        , m_client(std::move(store))
    {
    }

    /// Return the delimiter at which the store groups keys; empty: no grouping.
    virtual std::string delimiter() const = 0;

    /// Queue the entries that one listed object stands for; this may be none.
    /// @param name  the key relative to the folder; not empty
    virtual void processEntry(std::string name, const ObjectEntry& entry) = 0;

    void queueFile(const std::string& name, const ObjectEntry& entry)
    {
        m_pending.emplace_back(fl::i18n::utf8_to_ustring(name),
            foundation::storage::provider::FileAttributes(entry.size, entry.lastModified, true));
    }

    void queueFolder(const std::string& name, const boost::posix_time::ptime& lastModified)
    {
        m_pending.emplace_back(
            fl::i18n::utf8_to_ustring(name), foundation::storage::provider::FolderAttributes(lastModified, true));
    }

    /// Return where the first segment begins that is empty or "."; npos if there is none. An entry with such a segment
    /// is not listed: its IRI names something else, so a caller that lists folder by folder would not end.
    static std::size_t findUnlistedSegment(std::string_view name)
    {
        for (std::size_t begin = 0;;)
        {
            const std::size_t end = name.find('/', begin);
            const std::string_view segment = name.substr(begin, end - begin);
            if (segment.empty() || segment == ".")
            {
                return begin;
            }
            if (end == std::string_view::npos)
            {
                return end;
            }
            begin = end + 1;
        }
    }

    /// Log a key that is not listed. Once per listing, because such keys usually come in numbers.
    void warnAboutUnlisted(const std::string& key)
    {
        if (!std::exchange(m_hasWarned, true))
        {
            logMessage(foundation::log::severity::warning, "Not listed, perhaps with others like it: the key \"", key,
                "\" has an empty segment or a segment \".\"");
        }
    }

    /// Fetch pages until an entry is pending or the listing ends.
    ///
    /// The constructor of the derived class calls it once with `first` set, when its members are initialised.
    /// @param first  whether this is the first fetch, which also detects a missing folder
    /// @throws foundation::storage::provider::Exception when the folder does not exist, or for a failure of the store
    void fetch(bool first)
    {
        try
        {
            const std::string prefix = utils::ensureTrailingSlash(utils::iriToKey(m_iri));
            const ListOptions options{delimiter(), -1};
            bool mayBeMissing = first;
            for (; first || !m_continuationToken.empty(); first = false)
            {
                const std::vector<ObjectEntry> page = m_client->listObjects(prefix, m_continuationToken, options);
                mayBeMissing = mayBeMissing && page.empty();
                if (mayBeMissing && m_continuationToken.empty() && !m_client->getObjectInfo(prefix).exists)
                {
                    throw ResourceNotFoundException();
                }
                for (const ObjectEntry& entry : page)
                {
                    std::string name = entry.key.substr(prefix.size());
                    if (!name.empty()) // empty: the folder's own marker
                    {
                        processEntry(std::move(name), entry);
                    }
                }
                if (!m_pending.empty())
                {
                    return;
                }
            }
        }
        catch (...)
        {
            logCaughtException();
            translateCurrentException(m_iri);
        }
    }

private:
    std::optional<foundation::storage::provider::FolderEntry> m_current; // empty until the first next()
    std::deque<foundation::storage::provider::FolderEntry> m_pending;    // fetched, not returned yet
    std::string m_continuationToken;                                     // empty: there is no further page
    bool m_hasWarned = false;                                            // about a key that is not listed
    foundation::storage::provider::StorageIRI m_iri;
    CloudClientSharedPtr m_client;
};

} // namespace storage::cloudprovider
