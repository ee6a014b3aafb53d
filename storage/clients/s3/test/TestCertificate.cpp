#include "TestCertificate.hpp"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace storage::clients::test
{

namespace
{

template <typename Type>
using Owner = std::unique_ptr<Type, void (*)(Type*)>;

void require(bool done)
{
    if (!done)
    {
        throw std::runtime_error("making a certificate for the test failed");
    }
}

void addExtension(X509* certificate, int kind, const std::string& value)
{
    const Owner<X509_EXTENSION> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, kind, value.c_str()), X509_EXTENSION_free);
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

std::string textOf(BIO* memory)
{
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(memory, &bytes);
    return std::string(bytes, static_cast<std::size_t>(size));
}

} // namespace

TestCertificate::TestCertificate(const std::string& holder)
{
    const Owner<EVP_PKEY> pair(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const Owner<X509> x509(X509_new(), X509_free);
    require(pair != nullptr && x509 != nullptr && X509_set_version(x509.get(), X509_VERSION_3) == 1);
    X509_gmtime_adj(X509_getm_notBefore(x509.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(x509.get()), 3600);
    ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
    X509_NAME* const name = X509_get_subject_name(x509.get());
    require(X509_NAME_add_entry_by_txt(
                name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("loopback"), -1, -1, 0) == 1);
    require(X509_set_issuer_name(x509.get(), name) == 1 && X509_set_pubkey(x509.get(), pair.get()) == 1);
    addExtension(x509.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(x509.get(), NID_subject_alt_name, holder);
    require(X509_sign(x509.get(), pair.get(), EVP_sha256()) > 0);

    const Owner<BIO> certificateText(BIO_new(BIO_s_mem()), BIO_free_all);
    const Owner<BIO> keyText(BIO_new(BIO_s_mem()), BIO_free_all);
    require(PEM_write_bio_X509(certificateText.get(), x509.get()) == 1 &&
            PEM_write_bio_PrivateKey(keyText.get(), pair.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
    certificate = textOf(certificateText.get());
    key = textOf(keyText.get());
}

} // namespace storage::clients::test
