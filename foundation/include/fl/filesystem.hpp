#pragma once

#include <foundation/Export.hpp>

#include <boost/filesystem/path.hpp>

#include <fstream>
#include <ios>
#include <string>
#include <string_view>
#include <utility>

/// Local files. Their paths convert between UTF-16 and the native narrow form.
namespace fl::filesystem
{

template <class Narrow, class Wide>
class basic_path;

/// A local path, stored in the native narrow form. On this platform that is any sequence of bytes, by convention UTF-8.
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

    /// @throws std::range_error if `text` contains an unpaired surrogate
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

/// Convert to Boost.Filesystem's type.
FOUNDATION_EXPORT boost::filesystem::path to_filesystem(const path& file);

/// Convert to a form that can be opened even if the path is very long. On this platform that is the path itself.
FOUNDATION_EXPORT boost::filesystem::path make_access_form(const boost::filesystem::path& file);

/// Convert to the native narrow form.
///
/// @param absolute  resolve a relative path against the current folder; an empty path stays empty
FOUNDATION_EXPORT path make_native_form(const path& file, bool absolute);

} // namespace detail

/// Create an empty temporary file with a new name.
///
/// The file is created atomically and exclusively, so that no other process can put a file or a link in its place. Only
/// its owner can read and write it (mode 0600), whatever the umask. The caller removes it. Any thread may call this.
///
/// @param folder  where to create the file; empty: the system's temporary folder, named by the first of TMPDIR,
///                TMP, TEMP and TEMPDIR that is set, else /tmp
/// @param prefix  start of the file's name, without separators; empty: "fl"
/// @param suffix  end of the file's name, without separators, for example ".tmp"
/// @return the file's path; never empty
/// @throws std::invalid_argument if prefix or suffix contains a separator; boost::system::system_error if the folder
///         does not exist or the file cannot be created. No file remains then.
FOUNDATION_EXPORT path tmpnam(const path& folder = {}, const path& prefix = {}, const path& suffix = {});

/// Delete a file.
///
/// @return whether the file existed; a missing file is not an error
/// @throws boost::system::system_error if the file cannot be deleted
FOUNDATION_EXPORT bool remove(const path& file);

/// A std::basic_ofstream that opens a path, and throws std::ios_base::failure if opening or any other operation fails.
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
