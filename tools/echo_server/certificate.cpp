#include "tools/echo_server/certificate.h"

#include <cstdint>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace
{

const long s_nDaySeconds = 24L * 60 * 60;

struct TFreeExtension {
    void operator()(X509_EXTENSION *ptExtension) const
    {
        X509_EXTENSION_free(ptExtension);
    }
};

struct TFreeBio {
    void operator()(BIO *ptBio) const
    {
        BIO_free(ptBio);
    }
};

void Require(bool bDone, const char *szWhat)
{
    if (!bDone) {
        throw std::runtime_error(szWhat);
    }
}

/*
 * A client that remembers an earlier certificate of this issuer may refuse a second one with
 * the same serial number.
 */
uint64_t RandomSerial()
{
    unsigned char abySerial[8];
    Require(RAND_bytes(abySerial, sizeof(abySerial)) == 1, "no random serial number for the certificate");
    uint64_t qwSerial = 1;
    for (const unsigned char byPart : abySerial) {
        qwSerial = (qwSerial << 7) | (byPart & 0x7FU);
    }
    return qwSerial;
}

void AddSubjectAltName(X509 *ptCertificate)
{
    X509V3_CTX tContext;
    X509V3_set_ctx_nodb(&tContext);
    X509V3_set_ctx(&tContext, ptCertificate, ptCertificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, TFreeExtension> ptName(
        X509V3_EXT_conf_nid(nullptr, &tContext, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"));
    Require(ptName && X509_add_ext(ptCertificate, ptName.get(), -1) == 1, "the certificate's names could not be set");
}

} // namespace

CKey MakeKey()
{
    CKey ptKey(EVP_EC_gen("P-256"));
    Require(ptKey != nullptr, "no key for the certificate");
    return ptKey;
}

CCertificate MakeCertificate(EVP_PKEY *ptKey)
{
    CCertificate ptCertificate(X509_new());
    X509 *ptNew = ptCertificate.get();
    Require(ptNew != nullptr, "no memory for a certificate");

    X509_NAME *ptSubject = X509_get_subject_name(ptNew);
    const auto *pbyCommonName = reinterpret_cast<const unsigned char *>("localhost");
    const bool bDone = X509_set_version(ptNew, 2) == 1 &&
                       ASN1_INTEGER_set_uint64(X509_get_serialNumber(ptNew), RandomSerial()) == 1 &&
                       X509_gmtime_adj(X509_getm_notBefore(ptNew), -s_nDaySeconds) != nullptr &&
                       X509_gmtime_adj(X509_getm_notAfter(ptNew), 30 * s_nDaySeconds) != nullptr &&
                       X509_NAME_add_entry_by_txt(ptSubject, "CN", MBSTRING_ASC, pbyCommonName, -1, -1, 0) == 1 &&
                       X509_set_issuer_name(ptNew, ptSubject) == 1 && X509_set_pubkey(ptNew, ptKey) == 1;
    Require(bDone, "the certificate could not be filled in");
    AddSubjectAltName(ptNew);
    Require(X509_sign(ptNew, ptKey, EVP_sha256()) != 0, "the certificate could not be signed");
    return ptCertificate;
}

std::string CertificateText(X509 *ptCertificate)
{
    const std::unique_ptr<BIO, TFreeBio> ptBio(BIO_new(BIO_s_mem()));
    Require(ptBio && PEM_write_bio_X509(ptBio.get(), ptCertificate) == 1, "no memory for the certificate's text");
    char *pchText = nullptr;
    const long nLen = BIO_get_mem_data(ptBio.get(), &pchText);
    return std::string(pchText, static_cast<size_t>(nLen));
}
