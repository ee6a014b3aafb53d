#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace storage::clients
{

/// The bytes of a request. They can be read from the start any number of times: to hash them before they are sent, and
/// to send them again when a reused connection turns out to be closed.
class RequestBody
{
public:
    RequestBody() = default;
    RequestBody(const RequestBody&) = delete;
    RequestBody& operator=(const RequestBody&) = delete;
    virtual ~RequestBody() = default;

    /// Go back to the first byte.
    /// @throws cloudprovider::UnknownErrorException when the source does not support that
    virtual void rewind() = 0;

    /// Read up to `capacity` bytes.
    /// @return bytes read; 0 at the end
    /// @throws cloudprovider::UnknownErrorException when the source has fewer than size() bytes
    virtual std::size_t read(char* target, std::size_t capacity) = 0;

    virtual std::uint64_t size() const noexcept = 0;

    /// Pass all bytes, from the first to the last, to a function. A piece is valid only during its call. Bytes in
    /// memory are passed where they are, other bytes through a buffer. Moves the position of read().
    /// @throws as rewind() and read(), and whatever `use` throws
    virtual void forEachPiece(const std::function<void(std::string_view)>& use);
};

/// Pieces of memory, one after the other. The bytes are borrowed: they must not change while the body exists.
class SpanBody : public RequestBody
{
public:
    explicit SpanBody(std::vector<std::string_view> pieces);

    void rewind() override;
    std::size_t read(char* target, std::size_t capacity) override;
    std::uint64_t size() const noexcept override { return m_size; }
    void forEachPiece(const std::function<void(std::string_view)>& use) override;

private:
    const std::vector<std::string_view> m_pieces;
    const std::uint64_t m_size;
    std::size_t m_piece = 0;    // the one that is read next
    std::size_t m_position = 0; // in it
};

/// A text of its own.
class TextBody : public RequestBody
{
public:
    explicit TextBody(std::string text)
        : m_text(std::move(text))
        , m_span({m_text})
    {
    }

    void rewind() override { m_span.rewind(); }
    std::size_t read(char* target, std::size_t capacity) override { return m_span.read(target, capacity); }
    std::uint64_t size() const noexcept override { return m_text.size(); }
    void forEachPiece(const std::function<void(std::string_view)>& use) override { use(m_text); }

private:
    const std::string m_text;
    SpanBody m_span;
};

/// The next `size` bytes of a stream, from its current position.
///
/// The bytes of a stream that is not seekable are read into memory first.
class StreamBody : public RequestBody
{
public:
    /// @param key      names the object in messages; must outlive the body, like `content`
    /// @throws cloudprovider::UnknownErrorException when the stream is not seekable and ends before `size` bytes
    StreamBody(const std::string& key, std::istream& content, std::uint64_t size);

    void rewind() override;
    std::size_t read(char* target, std::size_t capacity) override;
    std::uint64_t size() const noexcept override { return m_size; }
    void forEachPiece(const std::function<void(std::string_view)>& use) override;

private:
    const std::string& m_key;
    std::istream& m_content;
    const std::uint64_t m_size;
    const std::streamoff m_start;       // of the content in the stream; -1: the stream is not seekable
    std::optional<TextBody> m_buffered; // all bytes, when the stream is not seekable
    std::uint64_t m_position = 0;
};

} // namespace storage::clients
