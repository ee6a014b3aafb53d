#include <storage/clients/credentials/SmallFile.hpp>

#include <storage/clients/credentials/CredentialsFailure.hpp>

#include <fl/filesystem.hpp>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace storage::clients
{

std::string readSmallFile(const std::filesystem::path& path, const std::string& role, std::size_t maxSize)
{
    const auto refuse = [&](const std::string& reason)
    { return invalidCredentials("reading " + path.string() + ", " + role + ": " + reason); };
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text(maxSize + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad())
    {
        throw refuse(std::generic_category().message(errno == 0 ? EIO : errno));
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > maxSize)
    {
        throw refuse("it is too large");
    }
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    if (text.empty())
    {
        throw refuse("it is empty");
    }
    return text;
}

void replaceSmallFile(const std::filesystem::path& path, const std::string& text)
{
    const std::filesystem::path copy =
        fl::filesystem::tmpnam(path.parent_path().native(), path.filename().native(), ".tmp").native();
    try
    {
        std::ofstream file;
        file.exceptions(std::ios::badbit | std::ios::failbit);
        file.open(copy, std::ios::binary);
        file << text;
        file.close();
        std::filesystem::rename(copy, path);
    }
    catch (...)
    {
        std::error_code ignored; // the first failure is reported
        std::filesystem::remove(copy, ignored);
        throw;
    }
}

} // namespace storage::clients
