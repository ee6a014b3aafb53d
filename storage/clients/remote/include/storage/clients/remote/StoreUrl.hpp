#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace storage::clients
{

/// The parts of a store's URL, `SCHEME://PLACE?NAME=VALUE&…`.
class StoreUrl
{
public:
    /// What is done with the value of each parameter. It throws std::invalid_argument with the rest of a sentence that
    /// begins with the parameter's name: "must be 0 or 1".
    using Readers = std::map<std::string, std::function<void(const std::string& value)>>;

    /// @param form  of such URLs; ends every message, and must outlive the object
    /// @throws cloudprovider::InvalidLocationException for another scheme, and when the place has "@": then it may
    ///         contain credentials
    StoreUrl(const std::string& url, const std::string& scheme, const char* form);

    /// As it is in the URL.
    const std::string& place() const noexcept { return m_place; }

    /// The decoded rest of the place behind a slash, with a "/" at its end; empty when there is none.
    /// @param slash  its position; npos: there is none
    /// @throws cloudprovider::InvalidLocationException when that cannot be a key
    std::string prefixAfter(std::size_t slash) const;

    /// Pass the decoded value of each parameter to its reader.
    /// @throws cloudprovider::InvalidLocationException for a parameter that is unknown, given twice, or wrong
    void read(const Readers& readers) const;

private:
    [[noreturn]] void refuse(const std::string& reason) const;

    const char* const m_form;
    std::string m_place;
    std::string m_query;
};

/// The address of a service.
struct Endpoint
{
    std::string scheme; ///< https or http
    std::string host;   ///< in lower case, with the port unless it is the scheme's default
    std::string path;   ///< encoded, without a trailing "/"; usually empty

    std::string origin() const { return scheme + "://" + host; }
};

/// Parse a URL such as `http://HOST:PORT/PATH`; nothing for any other text.
std::optional<Endpoint> readEndpoint(const std::string& url);

// The values of parameters, for StoreUrl::Readers.
std::string readFolder(const std::string& value);
bool readFlag(const std::string& value);
std::uint64_t readNumber(const std::string& value, std::uint64_t min, std::uint64_t max);

/// The parameters that all distant stores have. @param settings  must outlive the result
template <typename Settings>
StoreUrl::Readers transferReaders(Settings& settings)
{
    return {{"endpoint", [&](const auto& value) { settings.endpoint = value; }},
        {"transfers", [&](const auto& value) { settings.transfers = readNumber(value, 1, 64); }},
        {"memory", [&](const auto& value) { settings.memory = readNumber(value, 0, 1ULL << 40U); }},
        {"part-size", [&](const auto& value) { settings.partSize = readNumber(value, 64 << 10, 1 << 30); }},
        {"cache", [&](const auto& value) { settings.cache.folder = readFolder(value); }},
        {"cache-size", [&](const auto& value) { settings.cache.maxSize = readNumber(value, 16 << 20, 1ULL << 50U); }},
        {"ca-file", [&](const auto& value) { settings.authorities = value; }}};
}

} // namespace storage::clients
