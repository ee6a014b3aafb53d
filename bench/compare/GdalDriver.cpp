// Does with GDAL's virtual file system what the command line does with a store.
//
// Usage: gdal_driver write LOCAL PATH
//        gdal_driver read PATH LOCAL
//        gdal_driver write-all LOCAL_FOLDER PATH JOBS     and read-all PATH LOCAL_FOLDER JOBS, for one level of files
//        gdal_driver list PATH | list-all PATH
//        gdal_driver pick SIZE OFFSETS OUTPUT PATH
//
// PATH starts with the prefix of a virtual file system, such as /vsis3/.

#include "ReadOffsets.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <cpl_vsi.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

// GDAL requests only as many bytes as one read asks for.
constexpr std::size_t blockSize = std::size_t{16} * 1024 * 1024;

void require(bool fine, const std::string& what)
{
    if (!fine)
    {
        throw std::runtime_error("cannot " + what + ": " + CPLGetLastErrorMsg());
    }
}

using File = std::unique_ptr<VSILFILE, int (*)(VSILFILE*)>;

File open(const std::string& path, const char* mode)
{
    File file(VSIFOpenL(path.c_str(), mode), &VSIFCloseL);
    require(file != nullptr, "open " + path);
    return file;
}

void copyFile(const std::string& from, const std::string& to, std::size_t atATime = blockSize)
{
    const File source = open(from, "rb");
    File target = open(to, "wb");
    const auto block = std::make_unique<char[]>(atATime);
    while (const std::size_t size = VSIFReadL(block.get(), 1, atATime, source.get()))
    {
        require(VSIFWriteL(block.get(), 1, size, target.get()) == size, "write " + to);
    }
    require(VSIFCloseL(target.release()) == 0, "close " + to);
}

void copyAll(const std::string& from, const std::string& to, unsigned jobs)
{
    VSIMkdir(to.c_str(), 0777); // an existing folder is fine
    char** const names = VSIReadDir(from.c_str());
    const int count = CSLCount(names);
    std::atomic<int> next = 0;
    std::exception_ptr failure;
    std::mutex mutex; // guards failure
    const auto work = [&]
    {
        for (int i = next++; i < count; i = next++)
        {
            const std::string name = names[i];
            if (name == "." || name == "..")
            {
                continue;
            }
            try
            {
                copyFile(from + "/" + name, to + "/" + name, std::size_t{64} * 1024);
            }
            catch (...)
            {
                const std::lock_guard lock(mutex);
                failure = std::current_exception();
            }
        }
    };
    {
        std::vector<std::jthread> threads(jobs);
        std::generate(threads.begin(), threads.end(), [&] { return std::jthread(work); });
    }
    CSLDestroy(names);
    if (failure)
    {
        std::rethrow_exception(failure);
    }
}

void list(const std::string& path, int depth)
{
    const char* const options[] = {"NAME_AND_TYPE_ONLY=YES", nullptr};
    VSIDIR* const folder = VSIOpenDir(path.c_str(), depth, options);
    require(folder != nullptr, "list " + path);
    while (const VSIDIREntry* entry = VSIGetNextDirEntry(folder))
    {
        if (!VSI_ISDIR(entry->nMode))
        {
            std::cout << entry->pszName << '\n';
        }
    }
    VSICloseDir(folder);
}

void pick(std::size_t size, const ReadOffsets& offsets, const std::string& path)
{
    const File file = open(path, "rb");
    offsets.readEach(size,
        [&](std::uint64_t offset, char* data, std::size_t wanted)
        {
            require(VSIFSeekL(file.get(), offset, SEEK_SET) == 0, "seek in " + path);
            return static_cast<std::ptrdiff_t>(VSIFReadL(data, 1, wanted, file.get()));
        });
}

bool run(const std::vector<std::string>& arguments)
{
    const auto is = [&](const char* command, std::size_t count)
    { return arguments.size() == count && arguments[0] == command; };
    if (is("write", 3) || is("read", 3))
    {
        copyFile(arguments[1], arguments[2]);
    }
    else if (is("write-all", 4) || is("read-all", 4))
    {
        copyAll(arguments[1], arguments[2], static_cast<unsigned>(std::stoul(arguments[3])));
    }
    else if (is("list", 2) || is("list-all", 2))
    {
        list(arguments[1], is("list", 2) ? 0 : -1);
    }
    else if (is("pick", 5))
    {
        pick(std::stoul(arguments[1]), ReadOffsets(arguments[2], arguments[3]), arguments[4]);
    }
    else
    {
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
try
{
    if (!run({argv + 1, argv + argc}))
    {
        std::cerr << "usage: gdal_driver write|read|write-all|read-all|list|list-all|pick …" << std::endl;
        return 2;
    }
    return 0;
}
catch (const std::exception& failure)
{
    std::cerr << "gdal_driver: " << failure.what() << std::endl;
    return 1;
}
