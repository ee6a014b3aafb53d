#include <fl/filesystem.hpp>

#include <fl/i18n.hpp>

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fl::filesystem
{

basic_path<char, char16_t>::basic_path(std::u16string_view text)
    : m_native(i18n::ustring_to_utf8(text))
{
}

std::u16string basic_path<char, char16_t>::u16string() const
{
    return i18n::utf8_to_ustring(m_native);
}

namespace detail
{

boost::filesystem::path to_filesystem(const path& file)
{
    return file.native();
}

boost::filesystem::path make_access_form(const boost::filesystem::path& file)
{
    return file;
}

path make_native_form(const path& file, bool absolute)
{
    if (!absolute || file.empty())
    {
        return file;
    }
    return boost::filesystem::absolute(to_filesystem(file)).string();
}

} // namespace detail

namespace
{

[[noreturn]] void throwSystemError(int error, const std::string& what)
{
    throw boost::system::system_error(error, boost::system::system_category(), what);
}

} // namespace

path tmpnam(const path& folder, const path& prefix, const path& suffix)
{
    for (const path* part : {&prefix, &suffix})
    {
        // A separator would lead to another folder.
        if (part->native().find('/') != std::string::npos)
        {
            throw std::invalid_argument(
                "the name of a temporary file contains a separator: \"" + part->native() + "\"");
        }
    }
    const boost::filesystem::path place =
        folder.empty() ? boost::filesystem::temp_directory_path() : detail::to_filesystem(folder);
    std::string name = (place / (prefix.empty() ? "fl" : prefix.native())).string() + "XXXXXX" + suffix.native();

    const int file = ::mkostemps(name.data(), static_cast<int>(suffix.native().size()), O_CLOEXEC);
    if (file < 0)
    {
        throwSystemError(errno, "creating a temporary file in \"" + place.string() + "\"");
    }
    // The umask may have removed the owner's permissions.
    const int error = ::fchmod(file, S_IRUSR | S_IWUSR) == 0 ? 0 : errno;
    ::close(file);
    if (error != 0)
    {
        ::unlink(name.c_str());
        throwSystemError(error, "setting the permissions of \"" + name + "\"");
    }
    return path(std::move(name)); // takes no memory: a failure would leave the file without an owner
}

bool remove(const path& file)
{
    // Takes no memory unless it fails, so that destructors can remove their files.
    if (std::remove(file.native().c_str()) == 0)
    {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR)
    {
        throwSystemError(errno, "removing \"" + file.native() + "\"");
    }
    return false;
}

} // namespace fl::filesystem
