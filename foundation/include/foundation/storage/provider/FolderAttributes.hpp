#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace foundation::storage::provider
{

/// Attributes of a folder.
class FolderAttributes
{
public:
    /// @param lastModified  UTC; not_a_date_time if the folder has no time of its own
    FolderAttributes(boost::posix_time::ptime lastModified, bool writable)
        : m_lastModified(lastModified)
        , m_writable(writable)
    {
    }

    const boost::posix_time::ptime& lastModified() const noexcept { return m_lastModified; }
    bool isWritable() const noexcept { return m_writable; }

    friend bool operator==(const FolderAttributes&, const FolderAttributes&) = default;

private:
    boost::posix_time::ptime m_lastModified;
    bool m_writable;
};

} // namespace foundation::storage::provider
