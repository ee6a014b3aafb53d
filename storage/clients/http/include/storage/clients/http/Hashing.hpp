#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace storage::clients
{

class Digest;
class RequestBody;

/// SHA-256 of the text, as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view text);

/// The same of a whole body. Moves the position of its read().
std::string sha256Hex(RequestBody& body);

/// HMAC with SHA-256: 32 bytes.
std::string hmacSha256(std::string_view key, std::string_view text);

/// SHA-1 of the text, as 40 lower-case hexadecimal digits. Only for names of files that others have chosen so.
std::string sha1Hex(std::string_view text);

/// MD5 of the text: 16 bytes.
std::string md5(std::string_view text);

/// The same of a whole body. Moves the position of its read().
std::string md5(RequestBody& body);

/// The same of bytes added piece by piece.
class Md5
{
public:
    Md5();
    ~Md5();

    void add(std::string_view bytes);

    /// Call once, at the end.
    std::string finish();

private:
    const std::unique_ptr<Digest> m_digest;
};

/// Base64 encoding, as in request fields.
std::string toBase64(std::string_view bytes);

/// Decode base64; empty for any other text.
std::string fromBase64(std::string_view text);

/// Two lower-case hexadecimal digits for each byte.
std::string toHex(std::string_view bytes);

/// Decode hexadecimal digits; empty for any other text.
std::string fromHex(std::string_view digits);

} // namespace storage::clients
