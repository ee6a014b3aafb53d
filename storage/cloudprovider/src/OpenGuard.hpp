#pragma once

#include "LogRecords.hpp"

#include <storage/cloudprovider/Buffer.hpp>

#include <utility>

namespace storage::cloudprovider
{

/// Owns one open of a buffer: closes the buffer at the end of the scope, unless release() was called.
///
/// A failure to close is logged and not reported: if bytes may be lost by it, the next open of the buffer fails, and
/// nothing is stored without opening it.
class OpenGuard
{
public:
    /// Take over an open() that has succeeded. The buffer is borrowed.
    explicit OpenGuard(Buffer& opened)
        : m_buffer(&opened)
    {
    }
    OpenGuard(const OpenGuard&) = delete;
    OpenGuard& operator=(const OpenGuard&) = delete;

    ~OpenGuard()
    {
        try
        {
            if (m_buffer != nullptr)
            {
                m_buffer->close();
            }
        }
        catch (...)
        {
            logCaughtException();
        }
    }

    /// Leave the buffer open; the caller closes it.
    void release() { m_buffer = nullptr; }

private:
    Buffer* m_buffer; // null after release()
};

} // namespace storage::cloudprovider
