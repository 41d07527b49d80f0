/*
 * A self-signed certificate for 127.0.0.1 and localhost.
 */
#ifndef TOOLS_ECHO_SERVER_CERTIFICATE_H
#define TOOLS_ECHO_SERVER_CERTIFICATE_H

#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <string>

struct TFreeKey {
    void operator()(EVP_PKEY *ptKey) const
    {
        EVP_PKEY_free(ptKey);
    }
};
struct TFreeCertificate {
    void operator()(X509 *ptCertificate) const
    {
        X509_free(ptCertificate);
    }
};
using CKey = std::unique_ptr<EVP_PKEY, TFreeKey>;
using CCertificate = std::unique_ptr<X509, TFreeCertificate>;

/* A new key, and a certificate for it that holds from yesterday for 30 days. Both throw std::runtime_error. */
CKey MakeKey();
CCertificate MakeCertificate(EVP_PKEY *ptKey);

/* As PEM. Throws std::runtime_error, too. */
std::string CertificateText(X509 *ptCertificate);

#endif
