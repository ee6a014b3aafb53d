#pragma once

#include <foundation/storage/provider/fsp.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <optional>

namespace foundation::storage::provider
{

/// Attributes of a file.
class FileAttributes
{
public:
    /// @param size          in bytes; empty if the provider does not know it
    /// @param lastModified  UTC; not_a_date_time if the provider does not know it
    FileAttributes(std::optional<unsigned long> size, boost::posix_time::ptime lastModified, bool writable)
        : m_size(size)
        , m_lastModified(lastModified)
        , m_writable(writable)
    {
    }

    const std::optional<unsigned long>& size() const noexcept { return m_size; }
    const boost::posix_time::ptime& lastModified() const noexcept { return m_lastModified; }
    bool isWritable() const noexcept { return m_writable; }

    friend bool operator==(const FileAttributes&, const FileAttributes&) = default;

private:
    std::optional<unsigned long> m_size;
    boost::posix_time::ptime m_lastModified;
    bool m_writable;
};

} // namespace foundation::storage::provider
