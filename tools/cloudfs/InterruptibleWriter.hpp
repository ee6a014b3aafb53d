#pragma once

#include <cstddef>
#include <string_view>
#include <system_error>

namespace cloudfs
{

/// Writes to a descriptor of any kind so that a signal ends the wait for a slow reader, on whichever thread. Only the
/// main thread receives signals, so a write() that blocks on another one would go on for ever.
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
    std::size_t m_maxWrite; // bytes that write() takes at once without blocking, after poll() has said that it is ready
};

} // namespace cloudfs
