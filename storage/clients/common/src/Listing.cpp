#include <storage/clients/common/Listing.hpp>

namespace storage::clients
{

std::string prefixEnd(std::string prefix)
{
    while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xFF)
    {
        prefix.pop_back();
    }
    if (!prefix.empty())
    {
        prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
    }
    return prefix;
}

std::string_view groupOf(std::string_view key, std::size_t prefixSize, std::string_view delimiter)
{
    const std::size_t at = delimiter.empty() ? std::string_view::npos : key.find(delimiter, prefixSize);
    return at == std::string_view::npos ? std::string_view{} : key.substr(0, at + delimiter.size());
}

} // namespace storage::clients
