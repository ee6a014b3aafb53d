// Copy a file through a stream of the provider, in calls of 1 MiB, as a host would.
//
// Usage: host_stream write LOCAL STORE_URL PATH     a local file into the store
//        host_stream read LOCAL STORE_URL PATH      the other way

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/IProvider.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <fstream>
#include <ios>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

namespace fsp = foundation::storage::provider;

void write(fsp::ByteStream& stream, std::istream& source, std::vector<char>& block)
{
    while (source.read(block.data(), static_cast<std::streamsize>(block.size())), source.gcount() > 0)
    {
        for (std::streamsize done = 0; done < source.gcount();)
        {
            done += stream.write(block.data() + done, source.gcount() - done);
        }
    }
}

void read(fsp::ByteStream& stream, std::ostream& target, std::vector<char>& block)
{
    const auto size = static_cast<std::streamsize>(block.size());
    for (std::streamsize count = stream.read(block.data(), size); count > 0; count = stream.read(block.data(), size))
    {
        target.write(block.data(), count);
    }
}

} // namespace

int main(int argc, char** argv)
try
{
    const std::string verb = argc == 5 ? argv[1] : "";
    if (verb != "write" && verb != "read")
    {
        std::cerr << "usage: host_stream write|read LOCAL STORE_URL PATH" << std::endl;
        return 2;
    }
    using namespace storage::cloudprovider;
    const auto provider = buildCloudProvider(storage::clients::openStore(argv[3]), FolderPolicy::KeyPrefixes, false);
    const auto iri = fsp::StorageIRI::fromUtf8(std::string("bench://store/") + argv[4]);
    std::vector<char> block(std::size_t{1} << 20U);
    std::fstream local(argv[2], std::ios::binary | (verb == "write" ? std::ios::in : std::ios::out | std::ios::trunc));
    const auto stream =
        verb == "write"
            ? provider->openStream(iri, {fsp::ByteStreamReadAccess::None, fsp::ByteStreamCreate::IfMissing,
                                            fsp::ByteStreamTruncate::Discard, fsp::ByteStreamWritePosition::AtOffset})
            : provider->openReadOnlyStream(iri);
    verb == "write" ? write(*stream, local, block) : read(*stream, local, block);
    stream->close();
    local.close();
    if (local.bad())
    {
        throw std::runtime_error(std::string("cannot ") + (verb == "write" ? "read " : "write ") + argv[2]);
    }
    return 0;
}
catch (const std::exception& failure)
{
    std::cerr << "host_stream: " << failure.what() << std::endl;
    return 1;
}
