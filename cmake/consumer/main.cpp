/// Write a file into the store whose URL is the argument, and read it back.

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ByteStreamOpenOptions.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace
{

void writeAndReadBack(const std::string& storeUrl)
{
    namespace cp = storage::cloudprovider;
    const auto provider =
        cp::buildCloudProvider(storage::clients::openStore(storeUrl), cp::FolderPolicy::MarkerObjects, false);
    const fsp::StorageIRI file(u"cloud://store/folder/greeting.txt");
    constexpr std::string_view greeting = "written through an installed library";

    const auto out = provider->openStream(file, {});
    out->write(greeting.data(), greeting.size());
    out->close();

    const auto in = provider->openReadOnlyStream(file);
    std::string content;
    char bytes[16];
    for (auto count = in->read(bytes, sizeof bytes); count > 0; count = in->read(bytes, sizeof bytes))
    {
        content.append(bytes, static_cast<std::size_t>(count));
    }
    in->close();

    if (content != greeting)
    {
        throw std::runtime_error("read back \"" + content + "\"");
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::cerr << "usage: consumer STORE-URL\n";
        return 2;
    }
    try
    {
        writeAndReadBack(argv[1]);
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::cerr << argv[1] << ": " << failure.what() << '\n';
        return 1;
    }
}
