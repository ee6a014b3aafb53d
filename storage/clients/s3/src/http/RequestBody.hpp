#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace storage::clients::s3
{

/// The bytes of a request, which can be read again from their start as often as needed: to hash them before they are
/// sent, and to send them once more when a kept connection turns out to be dead.
class RequestBody
{
public:
    RequestBody() = default;
    RequestBody(const RequestBody&) = delete;
    RequestBody& operator=(const RequestBody&) = delete;
    virtual ~RequestBody() = default;

    /// Go back to the first byte.
    /// @throws cloudprovider::UnknownErrorException when the source cannot
    virtual void rewind() = 0;

    /// Read up to `capacity` bytes.
    /// @return bytes read; 0 at the end
    /// @throws cloudprovider::UnknownErrorException when the source has fewer bytes than it promised
    virtual std::size_t read(char* target, std::size_t capacity) = 0;

    virtual std::uint64_t size() const noexcept = 0;
};

/// Bytes in memory.
class TextBody : public RequestBody
{
public:
    explicit TextBody(std::string text)
        : m_text(std::move(text))
    {
    }

    void rewind() override { m_position = 0; }
    std::size_t read(char* target, std::size_t capacity) override;
    std::uint64_t size() const noexcept override { return m_text.size(); }

private:
    const std::string m_text;
    std::uint64_t m_position = 0;
};

/// The next `size` bytes of a stream, from where it stands.
///
/// A stream that cannot be sought is taken into memory first.
class StreamBody : public RequestBody
{
public:
    /// @param key      names the object in messages; borrowed like the content for the body's life
    /// @throws cloudprovider::UnknownErrorException when the stream cannot be sought and ends before `size` bytes
    StreamBody(const std::string& key, std::istream& content, std::uint64_t size);

    void rewind() override;
    std::size_t read(char* target, std::size_t capacity) override;
    std::uint64_t size() const noexcept override { return m_size; }

private:
    const std::string& m_key;
    std::istream& m_content;
    const std::uint64_t m_size;
    const std::streamoff m_start; // of the content in the stream; -1: the stream cannot be sought
    std::string m_buffered;       // the whole of it, when the stream cannot be sought
    std::uint64_t m_position = 0;
};

} // namespace storage::clients::s3
