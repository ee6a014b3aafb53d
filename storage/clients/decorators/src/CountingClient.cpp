#include <storage/clients/decorators/CountingClient.hpp>

#include "PassThroughBuffer.hpp"

#include <ostream>

namespace storage::clients
{

namespace
{

/// Count what is written, and keep the positions of the buffer that it is written to.
class CountingBuffer : public PassThroughBuffer
{
    using PassThroughBuffer::PassThroughBuffer;

    pos_type seekoff(off_type offset, std::ios_base::seekdir way, std::ios_base::openmode which) override
    {
        return target().pubseekoff(offset, way, which);
    }

    pos_type seekpos(pos_type position, std::ios_base::openmode which) override
    {
        return target().pubseekpos(position, which);
    }
};

} // namespace

void CountingClient::around(const Call& call, const std::function<void()>& proceed)
{
    {
        const std::lock_guard lock(m_mutex);
        ++m_counted[call.operation].calls;
    }
    proceed();
    const std::lock_guard lock(m_mutex);
    m_counted[call.operation].bytes += call.size;
    if (call.part != nullptr)
    {
        m_counted[call.operation].parts.insert(call.part->Index);
    }
}

void CountingClient::getObjectRange(const std::string& key, std::ostream& out, std::uint64_t first, std::uint64_t last)
{
    CountingBuffer buffer(out.rdbuf());
    std::ostream counted(&buffer);
    counted.setstate(out.rdstate());
    counted.exceptions(out.exceptions());
    InterceptingClient::getObjectRange(key, counted, first, last);
    const std::lock_guard lock(m_mutex);
    m_counted[Operation::GetObjectRange].bytes += buffer.bytes();
}

CallSnapshot CountingClient::callSnapshot() const
{
    const std::lock_guard lock(m_mutex);
    return m_counted;
}

} // namespace storage::clients
