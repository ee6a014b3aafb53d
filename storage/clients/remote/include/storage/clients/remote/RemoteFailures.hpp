#pragma once

#include <storage/clients/common/TransientException.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <optional>
#include <string>
#include <utility>

namespace storage::clients
{

/// The store has refused a request because the object is not the version that the request requires.
class PreconditionFailed : public cloudprovider::UnknownErrorException
{
public:
    /// @param wasSentTwice  the request was sent again after a broken connection: the first one may have taken effect
    ///                      and be the reason why the second was refused
    explicit PreconditionFailed(const std::string& detail, bool wasSentTwice = false)
        : UnknownErrorException("Object changed", detail)
        , m_wasSentTwice(wasSentTwice)
    {
    }

    bool wasSentTwice() const noexcept { return m_wasSentTwice; }

private:
    bool m_wasSentTwice;
};

/// The bytes that a request has delivered do not match their checksum.
class CorruptContent : public TransientException
{
public:
    using TransientException::TransientException;
};

} // namespace storage::clients
