#include <storage/clients/http/Hashing.hpp>

#include <storage/clients/http/RequestBody.hpp>

#include <boost/algorithm/hex.hpp>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>

namespace storage::clients
{

namespace
{

void require(bool succeeded)
{
    if (!succeeded)
    {
        throw std::runtime_error("the hash functions of OpenSSL are not available");
    }
}

} // namespace

class Digest
{
public:
    explicit Digest(const EVP_MD* kind)
        : m_context(EVP_MD_CTX_new(), &EVP_MD_CTX_free)
    {
        require(m_context && EVP_DigestInit_ex(m_context.get(), kind, nullptr) == 1);
    }

    void add(std::string_view bytes) { require(EVP_DigestUpdate(m_context.get(), bytes.data(), bytes.size()) == 1); }

    std::string finish()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned size = 0;
        require(EVP_DigestFinal_ex(m_context.get(), digest.data(), &size) == 1);
        return {digest.begin(), digest.begin() + size};
    }

private:
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context;
};

namespace
{

std::string hashOf(RequestBody& body, const EVP_MD* kind)
{
    Digest digest(kind);
    body.forEachPiece([&digest](std::string_view piece) { digest.add(piece); });
    return digest.finish();
}

} // namespace

std::string sha256Hex(std::string_view text)
{
    Digest digest(EVP_sha256());
    digest.add(text);
    return toHex(digest.finish());
}

std::string sha256Hex(RequestBody& body)
{
    return toHex(hashOf(body, EVP_sha256()));
}

std::string hmacSha256(std::string_view key, std::string_view text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    require(HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
                reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest.data(), &size) != nullptr);
    return {digest.begin(), digest.begin() + size};
}

std::string sha1Hex(std::string_view text)
{
    Digest digest(EVP_sha1());
    digest.add(text);
    return toHex(digest.finish());
}

std::string md5(std::string_view text)
{
    Digest digest(EVP_md5());
    digest.add(text);
    return digest.finish();
}

std::string md5(RequestBody& body)
{
    return hashOf(body, EVP_md5());
}

Md5::Md5()
    : m_digest(std::make_unique<Digest>(EVP_md5()))
{
}

Md5::~Md5() = default;

void Md5::add(std::string_view bytes)
{
    m_digest->add(bytes);
}

std::string Md5::finish()
{
    return m_digest->finish();
}

std::string toBase64(std::string_view bytes)
{
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0'); // plus the terminating zero that is written, too
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string fromBase64(std::string_view text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
    if (text.empty() || text.size() % 4 != 0 ||
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
            reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size())) < 0)
    {
        return {};
    }
    return bytes.substr(0, bytes.size() - padding); // the decoder counts the padding as bytes
}

std::string toHex(std::string_view bytes)
{
    std::string digits;
    boost::algorithm::hex_lower(bytes, std::back_inserter(digits));
    return digits;
}

std::string fromHex(std::string_view digits)
{
    std::string bytes;
    try
    {
        boost::algorithm::unhex(digits, std::back_inserter(bytes));
    }
    catch (const boost::algorithm::hex_decode_error&)
    {
        return {}; // an entity tag need not be hexadecimal
    }
    return bytes;
}

} // namespace storage::clients
