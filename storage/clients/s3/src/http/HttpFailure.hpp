#pragma once

#include <stdexcept>
#include <string>

namespace storage::clients::s3
{

/// A request that got no whole answer.
class HttpFailure : public std::runtime_error
{
public:
    enum class Kind
    {
        Unreachable, ///< no connection: unknown host, refused, timed out while connecting
        Certificate, ///< the other side is not who it should be
        Stalled,     ///< connected, and then too slow or silent
        Broken,      ///< the connection ended early, or what came is no HTTP
        Interrupted, ///< the host wanted it to end
        Invalid      ///< the request cannot be made: a malformed address, a control character in a field, a file of
                     ///< authorities that cannot be read
    };

    /// @param what  what went wrong, for people, without the URL's query
    HttpFailure(Kind kind, const std::string& what)
        : std::runtime_error(what)
        , m_kind(kind)
    {
    }

    Kind kind() const noexcept { return m_kind; }

    /// Whether the same request may succeed a moment later.
    bool isTransient() const noexcept { return m_kind != Kind::Certificate && m_kind != Kind::Invalid; }

private:
    Kind m_kind;
};

} // namespace storage::clients::s3
