#pragma once

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/stream.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <ios>

namespace storage::mount
{

/// Where the bytes of an object to be stored come from.
///
/// Reads bytes [offset, offset + size). Called by several threads at a time. What it throws ends the transfer.
using ReadBytes = std::function<void(std::uint64_t offset, char* target, std::size_t size)>;

/// Reads a part of a file, for a stream.
class PartSource
{
public:
    using char_type = char;
    using category = boost::iostreams::source_tag;

    PartSource(const ReadBytes& read, std::uint64_t offset, std::uint64_t size)
        : m_read(&read)
        , m_offset(offset)
        , m_left(size)
    {
    }

    std::streamsize read(char* target, std::streamsize size)
    {
        const std::uint64_t count = std::min<std::uint64_t>(static_cast<std::uint64_t>(size), m_left);
        if (count == 0)
        {
            return -1;
        }
        (*m_read)(m_offset, target, count);
        m_offset += count;
        m_left -= count;
        return static_cast<std::streamsize>(count);
    }

private:
    const ReadBytes* m_read;
    std::uint64_t m_offset;
    std::uint64_t m_left;
};

/// Call `send` with a stream of a part's bytes. The stream hides what reading them throws; this does not.
template <typename Send>
auto withPartStream(const ReadBytes& read, std::uint64_t offset, std::uint64_t size, Send send)
{
    constexpr std::streamsize bufferSize = 256 << 10;
    std::exception_ptr failure;
    const ReadBytes readOrRemember = [&](std::uint64_t at, char* target, std::size_t count)
    {
        try
        {
            read(at, target, count);
        }
        catch (...)
        {
            failure = std::current_exception();
            throw;
        }
    };
    boost::iostreams::stream<PartSource> content(PartSource(readOrRemember, offset, size), bufferSize);
    try
    {
        return send(content);
    }
    catch (...)
    {
        failure ? std::rethrow_exception(failure) : throw;
    }
}

} // namespace storage::mount
