#pragma once

#include <stdexcept>
#include <string>

namespace storage::clients
{

/// A request without a complete response.
class HttpFailure : public std::runtime_error
{
public:
    enum class Kind
    {
        Unreachable, ///< no connection: unknown host, refused, timed out while connecting
        Certificate, ///< the server's certificate is not trusted or not for this host
        Stalled,     ///< connected, then too slow or silent
        Broken,      ///< the connection ended early
        Unusable,    ///< the response is not HTTP, or is too long
        Interrupted, ///< cancelled by the host
        Invalid      ///< the request cannot be sent: a malformed URL, a control character in a field, a file of
                     ///< authorities that cannot be read
    };

    /// @param what  message for people, without the URL's query
    HttpFailure(Kind kind, const std::string& what)
        : std::runtime_error(what)
        , m_kind(kind)
    {
    }

    Kind kind() const noexcept { return m_kind; }

    /// Whether a retry may succeed.
    bool isTransient() const noexcept { return m_kind != Kind::Certificate && m_kind != Kind::Invalid; }

private:
    Kind m_kind;
};

} // namespace storage::clients
