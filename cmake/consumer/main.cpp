/// Run the examples of docs/embedding.md on the store whose URL is the argument, and check what they do.

#include <foundation/storage/provider/IProvider.hpp>
#include <storage/clients/stores/OpenStore.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>
#include <storage/cloudprovider/CloudProvider.hpp>

#include <exception>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>

// In the examples.
void append(const fsp::IProvider& provider, const fsp::StorageIRI& file, std::string_view line);
std::string readAt(
    const fsp::IProvider& provider, const fsp::StorageIRI& file, std::streamoff offset, std::size_t count);
unsigned long totalSize(const fsp::IProvider& provider, const fsp::StorageIRI& folder);
void replace(const fsp::IProvider& provider, const fsp::StorageIRI& file, std::istream& source);

namespace
{

namespace cp = storage::cloudprovider;

void require(bool condition, const char* what)
{
    if (!condition)
    {
        throw std::logic_error(what);
    }
}

// Deliver some bytes, then fail.
class BrokenSource : public std::streambuf
{
    int_type underflow() override
    {
        if (m_isRead)
        {
            throw std::runtime_error("broken");
        }
        m_isRead = true;
        setg(m_bytes, m_bytes, m_bytes + sizeof m_bytes);
        return traits_type::to_int_type(m_bytes[0]);
    }

    char m_bytes[3] = {'n', 'e', 'w'};
    bool m_isRead = false;
};

void run(const std::string& storeUrl)
{
    const auto store = storage::clients::openStore(storeUrl);
    const auto provider = cp::buildCloudProvider(store, cp::FolderPolicy::MarkerObjects, false);
    const fsp::StorageIRI folder(u"cloud://store/folder");
    const fsp::StorageIRI file = folder.getChild(u"greeting.txt");

    std::istringstream content("written through an installed library\n");
    replace(*provider, file, content);
    append(*provider, file, "and appended to");
    require(readAt(*provider, file, 16, 1000) == "an installed library\nand appended to\n", "the end of the file");
    require(readAt(*provider, file, 8, 7) == "through", "a range of the file");
    require(totalSize(*provider, folder) == 53, "53 bytes in the folder");

    BrokenSource broken;
    std::istream source(&broken);
    try
    {
        replace(*provider, file, source);
        require(false, "a failure of the source");
    }
    catch (const std::runtime_error&)
    {
        require(readAt(*provider, file, 0, 7) == "written", "the old content after an abandoned write");
    }

    // Exceptions cross the library boundary in both directions: the client in this program throws, the provider
    // translates.
    try
    {
        provider->getFileAttributes(folder.getChild(u"missing"));
        require(false, "a failure for a missing file");
    }
    catch (const fsp::Exception& failure)
    {
        require(failure.errorCode() == fsp::ErrorCode::NotFound, "the code of a missing file");
    }
    try
    {
        store->getObjectParts("missing");
        require(false, "a failure for a missing object");
    }
    catch (const cp::ResourceNotFoundException&)
    {
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
        run(argv[1]);
        return 0;
    }
    catch (const std::exception& failure)
    {
        std::cerr << argv[1] << ": " << failure.what() << '\n';
        return 1;
    }
}
