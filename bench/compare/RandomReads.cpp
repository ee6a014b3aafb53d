// Read pieces of one file in sequence, at the offsets of a list.
//
// Usage: random_reads SIZE OFFSETS OUTPUT FILE              of a mounted file system
//        random_reads SIZE OFFSETS OUTPUT STORE_URL PATH    of a store, through the provider
//
// OFFSETS has one offset per line. The pieces of SIZE bytes each go to OUTPUT in that order.

#include "ReadOffsets.hpp"

#include <foundation/storage/provider/IProvider.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <fcntl.h>
#include <iostream>
#include <system_error>
#include <unistd.h>

namespace
{

namespace fsp = foundation::storage::provider;
using namespace storage::cloudprovider;

void readFromStore(const std::string& url, const std::string& path, std::size_t size, const ReadOffsets& offsets)
{
    const auto provider = buildCloudProvider(storage::clients::openStore(url), FolderPolicy::KeyPrefixes, false);
    const auto stream = provider->openReadOnlyStream(fsp::StorageIRI::fromUtf8("bench://store" + path));
    offsets.readEach(size,
        [&](std::uint64_t offset, char* data, std::size_t wanted)
        {
            stream->seek(static_cast<fsp::stream_offset>(offset), std::ios_base::beg);
            return stream->read(data, static_cast<std::streamsize>(wanted));
        });
    stream->close();
}

void readFromFile(const char* path, std::size_t size, const ReadOffsets& offsets)
{
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        throw std::system_error(errno, std::generic_category(), path);
    }
    offsets.readEach(size, [&](std::uint64_t offset, char* data, std::size_t wanted)
        { return ::pread(file, data, wanted, static_cast<off_t>(offset)); });
    ::close(file);
}

} // namespace

int main(int argc, char** argv)
try
{
    if (argc != 5 && argc != 6)
    {
        std::cerr << "usage: random_reads SIZE OFFSETS OUTPUT FILE | STORE_URL PATH" << std::endl;
        return 2;
    }
    const ReadOffsets offsets(argv[2], argv[3]);
    argc == 5 ? readFromFile(argv[4], std::stoul(argv[1]), offsets)
              : readFromStore(argv[4], argv[5], std::stoul(argv[1]), offsets);
    return 0;
}
catch (const std::exception& failure)
{
    std::cerr << "random_reads: " << failure.what() << std::endl;
    return 1;
}
