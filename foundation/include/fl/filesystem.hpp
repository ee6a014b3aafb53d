#pragma once

#include <foundation/Export.hpp>

#include <boost/filesystem/path.hpp>

#include <fstream>
#include <ios>
#include <string>
#include <string_view>
#include <utility>

/// Local files, named by paths that convert between UTF-16 and the native narrow form.
namespace fl::filesystem
{

template <class Narrow, class Wide>
class basic_path;

/// A local path. Holds the native narrow form: on this platform any bytes, UTF-8 by convention.
template <>
class FOUNDATION_EXPORT basic_path<char, char16_t>
{
public:
    basic_path() = default;
    basic_path(std::string native)
        : m_native(std::move(native))
    {
    }
    basic_path(const char* native)
        : m_native(native)
    {
    }

    /// @throws std::range_error if a surrogate is unpaired
    basic_path(std::u16string_view text);

    bool empty() const noexcept { return m_native.empty(); }
    const std::string& native() const noexcept { return m_native; }

    /// @throws std::range_error if the native form is not UTF-8
    std::u16string u16string() const;

    friend bool operator==(const basic_path&, const basic_path&) = default;

private:
    std::string m_native;
};

using path = basic_path<char, char16_t>;

namespace detail
{

/// Give the form that Boost.Filesystem works with.
FOUNDATION_EXPORT boost::filesystem::path to_filesystem(const path& file);

/// Give the form that opens the file whatever its length; on this platform the path itself.
FOUNDATION_EXPORT boost::filesystem::path make_access_form(const boost::filesystem::path& file);

/// Give the native narrow form.
///
/// @param absolute  make it independent of the current folder
FOUNDATION_EXPORT path make_native_form(const path& file, bool absolute);

} // namespace detail

/// Create an empty file under a fresh name.
///
/// The file is created atomically and exclusively, readable and writable by its owner alone (mode 0600) whatever the
/// umask, so nobody can slip a file or a link under the name. It is the caller's to remove. Any thread may call this.
///
/// @param folder  where; empty: the system's temporary folder ($TMPDIR, else /tmp)
/// @param prefix  how the name begins; without separators. Empty: "fl"
/// @param suffix  how the name ends, for example ".tmp"; without separators
/// @return the file's path; never empty
/// @throws std::invalid_argument for a separator in prefix or suffix; boost::system::system_error if there is no such
///         folder or no file can be created in it. Nothing is left behind then.
FOUNDATION_EXPORT path tmpnam(const path& folder = {}, const path& prefix = {}, const path& suffix = {});

/// Delete a file.
///
/// @return whether there was one; a missing file is no failure
/// @throws boost::system::system_error if the file cannot be deleted
FOUNDATION_EXPORT bool remove(const path& file);

/// A std::basic_ofstream that is named by a path and throws std::ios_base::failure when anything on it fails, opening
/// included.
template <class Char>
class basic_ofstream : public std::basic_ofstream<Char>
{
public:
    explicit basic_ofstream(const path& file, std::ios_base::openmode mode = std::ios_base::out)
    {
        this->exceptions(std::ios_base::failbit | std::ios_base::badbit);
        this->open(detail::make_access_form(detail::to_filesystem(file)).string(), mode);
    }
};

} // namespace fl::filesystem
