#include <storage/clients/decorators/FaultyClient.hpp>

#include "PassThroughBuffer.hpp"

#include <storage/clients/common/KeyRules.hpp>
#include <storage/cloudprovider/CloudExceptions.hpp>

#include <algorithm>
#include <ostream>
#include <utility>

namespace storage::clients
{

using cloudprovider::ObjectEntry;

namespace
{

/// Pass the first bytes on, and drop the rest as if they had been written.
class LimitedBuffer : public PassThroughBuffer
{
public:
    LimitedBuffer(std::streambuf* target, std::uint64_t limit)
        : PassThroughBuffer(target)
        , m_limit(limit)
    {
    }

protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override
    {
        const auto size = static_cast<std::streamsize>(std::min(static_cast<std::uint64_t>(count), m_limit - bytes()));
        return PassThroughBuffer::xsputn(text, size) == size ? count : 0;
    }

    int_type overflow(int_type byte) override
    {
        const char one = traits_type::to_char_type(byte);
        return xsputn(&one, 1) == 1 ? traits_type::not_eof(byte) : traits_type::eof();
    }

private:
    const std::uint64_t m_limit;
};

constexpr char emptyPage = '+'; // a token begins with one for each empty page still to come
constexpr char innerToken = ':';

} // namespace

void FaultyClient::inject(Fault fault)
{
    const std::lock_guard lock(m_mutex);
    m_faults.push_back(std::move(fault));
}

void FaultyClient::clearFaults()
{
    const std::lock_guard lock(m_mutex);
    m_faults.clear();
}

void FaultyClient::setHook(Hook hook)
{
    const std::lock_guard lock(m_mutex);
    m_hook = std::move(hook);
}

void FaultyClient::setDownloadLimit(std::uint64_t bytes) noexcept
{
    m_downloadLimit = bytes;
}

void FaultyClient::setEmptyPages(unsigned pages) noexcept
{
    m_emptyPages = pages;
}

std::optional<Fault> FaultyClient::takeFault(const Call& call)
{
    std::optional<Fault> taken;
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_faults,
        [&](Fault& fault)
        {
            if (fault.operation.value_or(call.operation) != call.operation)
            {
                return false;
            }
            if (fault.call <= 1 && !taken)
            {
                taken = fault;
            }
            // Each fault counts every call that concerns it, also one that fails with another fault.
            return fault.call != 0 && --fault.call == 0;
        });
    return taken;
}

void FaultyClient::around(const Call& call, const std::function<void()>& proceed)
{
    const Hook hook = [&]
    {
        const std::lock_guard lock(m_mutex);
        return m_hook;
    }();
    std::optional<Fault> fault = takeFault(call);
    if (fault && !fault->failure)
    {
        fault->failure = std::make_exception_ptr(cloudprovider::UnknownErrorException(
            "Injected fault", std::string(name(call.operation)) + " of " + quoted(call.key) + ": injected fault"));
    }
    if (hook)
    {
        hook(call.operation, call.key);
    }
    if (!fault || fault->moment == Fault::Moment::AfterEffect)
    {
        proceed();
    }
    if (fault)
    {
        std::rethrow_exception(fault->failure);
    }
}

std::vector<ObjectEntry> FaultyClient::listObjects(
    const std::string& prefix, std::string& continuationToken, const cloudprovider::ListOptions& options)
{
    std::vector<ObjectEntry> page;
    around({Operation::ListObjects, prefix},
        [&]
        {
            const std::string beforeEach = std::string(m_emptyPages, emptyPage) + innerToken;
            std::string token = continuationToken.empty() ? beforeEach : continuationToken;
            const bool isEmpty = token.front() == emptyPage;
            token.erase(0, 1);
            if (!isEmpty)
            {
                page = inner().listObjects(prefix, token, options);
                token = token.empty() ? token : beforeEach + token;
            }
            continuationToken = token;
        });
    return page;
}

void FaultyClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    LimitedBuffer buffer(out.rdbuf(), m_downloadLimit);
    std::ostream limited(&buffer);
    limited.setstate(out.rdstate());
    InterceptingClient::getObjectRange(key, limited, first, last);
}

} // namespace storage::clients
