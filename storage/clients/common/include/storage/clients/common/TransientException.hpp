#pragma once

#include <storage/cloudprovider/CloudExceptions.hpp>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace storage::clients
{

/// A temporary failure: the store is busy or asks to slow down (429, 5xx), or the connection could not be opened, was
/// reset or stalled. The same request may succeed later. It may also have taken effect, since its response may be what
/// was lost.
///
/// A RemoteStore throws it, and RemoteClient sends the request again. RemoteClient throws it when it has given up. For
/// a host that does not retry, it is an ordinary UnknownErrorException.
class TransientException : public cloudprovider::UnknownErrorException
{
public:
    /// @param retryAfter  how long the store asked to wait; empty if it did not say
    explicit TransientException(const std::string& message, std::optional<std::string> detail = std::nullopt,
        std::optional<std::chrono::milliseconds> retryAfter = std::nullopt)
        : UnknownErrorException(message, std::move(detail))
        , m_retryAfter(retryAfter)
    {
    }

    std::optional<std::chrono::milliseconds> retryAfter() const noexcept { return m_retryAfter; }

private:
    std::optional<std::chrono::milliseconds> m_retryAfter;
};

/// The store refuses requests of this client, or of everybody, because there are too many (429, 503).
class TooManyRequests : public TransientException
{
public:
    using TransientException::TransientException;
};

/// The response can hardly get better: retry once. The store lacks what the request needs, or is no such store at all.
///
/// It is transient nevertheless, because a proxy may have responded for a store that is being restarted.
class UnusableResponse : public TransientException
{
public:
    using TransientException::TransientException;
};

} // namespace storage::clients
