#include "steady_tls/tls_certificate.h"

#include <openssl/x509.h>

#include <stdexcept>

namespace wire {

void ShowCertificate(SSL_CTX *context)
{
    EVP_PKEY *key = nullptr;
    EVP_PKEY_CTX *maker = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
    if (EVP_PKEY_keygen_init(maker) != 1 ||
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(maker, NID_X9_62_prime256v1) != 1 ||
        EVP_PKEY_keygen(maker, &key) != 1) {
        throw std::runtime_error("no key");
    }
    EVP_PKEY_CTX_free(maker);
    X509 *certificate = X509_new();
    X509_NAME *name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const uint8_t *>("rtmpcast test"),
                               -1, -1, 0);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -86400);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_issuer_name(certificate, name);
    X509_set_pubkey(certificate, key);
    X509_sign(certificate, key, EVP_sha256());
    if (SSL_CTX_use_certificate(context, certificate) != 1 || SSL_CTX_use_PrivateKey(context, key) != 1) {
        throw std::runtime_error("no certificate");
    }
    X509_free(certificate);
    EVP_PKEY_free(key);
}

} // namespace wire
