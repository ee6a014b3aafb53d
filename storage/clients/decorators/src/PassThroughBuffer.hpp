#pragma once

#include <cstdint>
#include <ios>
#include <streambuf>

namespace storage::clients
{

/// Pass every byte that is written through to another buffer, and count the bytes. Not seekable.
class PassThroughBuffer : public std::streambuf
{
public:
    /// @param target  borrowed for as long as this lives
    explicit PassThroughBuffer(std::streambuf* target)
        : m_target(target)
    {
    }

    /// The number of bytes written. Counted before the transfer, so it includes bytes whose transfer failed.
    std::uint64_t bytes() const noexcept { return m_bytes; }

protected:
    std::streambuf& target() const noexcept { return *m_target; }

    int_type overflow(int_type byte) override
    {
        if (traits_type::eq_int_type(byte, traits_type::eof()))
        {
            return traits_type::not_eof(byte);
        }
        ++m_bytes;
        return target().sputc(traits_type::to_char_type(byte));
    }

    std::streamsize xsputn(const char* bytes, std::streamsize count) override
    {
        m_bytes += static_cast<std::uint64_t>(count);
        return target().sputn(bytes, count);
    }

    int sync() override { return target().pubsync(); }

private:
    std::streambuf* const m_target;
    std::uint64_t m_bytes = 0;
};

} // namespace storage::clients
