#include "LocalTree.hpp"

#include "CommandError.hpp"
#include "Interrupt.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace cloudfs
{

namespace
{

std::vector<std::string> sortedNames(const std::string& folder, LocalTreeVisitor& visitor)
{
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    {
        names.push_back(entry->path().filename().native());
    }
    if (error)
    {
        visitor.reportSkipped(CommandError::fromErrno(folder, error.value()));
    }
    std::sort(names.begin(), names.end());
    return names;
}

void visit(const std::string& folder, const std::string& prefix, LocalTreeVisitor& visitor)
{
    for (const std::string& entry : sortedNames(folder, visitor))
    {
        interrupt::throwIfPending();
        const std::string local = fmt::format("{}/{}", folder, entry);
        const std::string name = prefix + entry;
        struct stat link = {};
        struct stat status = {};
        if (::lstat(local.c_str(), &link) != 0 || ::stat(local.c_str(), &status) != 0)
        {
            const bool isDangling = errno == ENOENT && S_ISLNK(link.st_mode);
            visitor.reportSkipped(isDangling
                                      ? CommandError(local, "skipped: the target of the symbolic link is missing",
                                            fsp::ErrorCode::NotFound)
                                      : CommandError::fromErrno(local, errno));
        }
        else if (S_ISREG(status.st_mode))
        {
            visitor.visitFile(local, name, static_cast<std::uint64_t>(status.st_size));
        }
        else if (S_ISDIR(link.st_mode))
        {
            if (visitor.enterFolder(local, name))
            {
                visit(local, name + "/", visitor);
            }
        }
        else
        {
            const char* reason =
                S_ISDIR(status.st_mode) ? "skipped: symbolic link to a folder" : "skipped: neither a file nor a folder";
            visitor.reportSkipped({local, reason, fsp::ErrorCode::Unsupported});
        }
    }
}

} // namespace

void walkLocalTree(const std::string& folder, LocalTreeVisitor& visitor)
{
    visit(folder, "", visitor);
}

bool isLocalFolder(const std::string& path)
{
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string baseName(std::string path)
{
    while (path.ends_with('/'))
    {
        path.pop_back();
    }
    std::string name = path.substr(path.rfind('/') + 1);
    return name == "." || name == ".." ? std::string() : name;
}

} // namespace cloudfs
