#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace storage::clients
{

class RequestBody;
struct HttpTimeouts;

/// The fields of a request or a response, in order. Names are case-insensitive.
class HttpHeaders
{
public:
    struct Field
    {
        std::string name;
        std::string value;
    };

    void add(std::string name, std::string value) { m_fields.push_back({std::move(name), std::move(value)}); }

    /// The value of the last field with this name; null when there is none. Valid until the headers change.
    const std::string* find(std::string_view name) const;

    auto begin() const { return m_fields.begin(); }
    auto end() const { return m_fields.end(); }

private:
    std::vector<Field> m_fields;
};

struct HttpRequest
{
    std::string method; ///< GET, HEAD, PUT, POST or DELETE
    std::string url;    ///< absolute, http or https, percent-encoded; sent unchanged, "." segments included
    HttpHeaders headers = {};
    RequestBody* body = nullptr;                               ///< borrowed during the call; null: none
    std::optional<std::chrono::milliseconds> stallWindow = {}; ///< instead of the client's own
    std::optional<std::chrono::milliseconds> deadline = {};    ///< for the whole request, instead of the client's own
    bool bypassProxy = false;                                  ///< never through a proxy
    bool uninterruptible = false; ///< an interrupt cancels it only after HttpTimeouts::cleanUp: it cannot be undone
};

/// Let a request take as long as the store may need to move bytes internally before it responds; see HttpTimeouts.
/// @param bytes  of copies, including those of concurrent requests; 0: few
void allowServerSideWork(HttpRequest& request, const HttpTimeouts& timeouts, std::uint64_t bytes);

struct HttpResponse
{
    int status = 0;
    HttpHeaders headers = {};
    std::string body; ///< empty when a receiver took it
    /// The request was sent again after a broken connection: the store may have received it twice.
    bool wasSentTwice = false;
};

} // namespace storage::clients
