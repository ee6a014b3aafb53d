#pragma once

#include <cstddef>
#include <string_view>
#include <system_error>

namespace cloudfs
{

/// Writes to a descriptor of any kind. If the reader of a pipe, socket or terminal is slow, a signal ends the wait,
/// whichever thread writes: only the main thread receives signals, and a write() that blocks another thread goes on.
///
/// One thread at a time.
class InterruptibleWriter
{
public:
    /// @param descriptor  stays the caller's; must be open as long as this object is used
    explicit InterruptibleWriter(int descriptor);

    InterruptibleWriter(const InterruptibleWriter&) = delete;
    InterruptibleWriter& operator=(const InterruptibleWriter&) = delete;

    ~InterruptibleWriter();

    /// Write all bytes. If it fails, some of them may have been written.
    ///
    /// @return the error of write(), if there was one
    /// @throws interrupt::Interrupted
    [[nodiscard]] std::error_code write(std::string_view bytes);

private:
    int m_descriptor;
    bool m_isOwn = false;
    bool m_isSocket = false;
    std::size_t m_maxWrite; // bytes that are written at once
};

} // namespace cloudfs
