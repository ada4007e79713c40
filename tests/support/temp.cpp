#include "temp.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace h2test {

namespace {

constexpr long kHour = 3600;

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;
using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

// Ends the process if a step failed, with the step's name and OpenSSL's errors.
void require(bool ok, const char* step) {
    if (ok) return;
    std::fprintf(stderr, "h2test: %s failed\n", step);
    ERR_print_errors_fp(stderr);
    std::abort();
}

std::string takeText(const Bio& bio) {
    char* text = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &text);
    require(size > 0, "BIO_get_mem_data");
    return {text, static_cast<size_t>(size)};
}

void addSubject(X509* certificate) {
    X509_NAME* const name = X509_get_subject_name(certificate);
    const auto* const host = reinterpret_cast<const unsigned char*>("localhost");
    require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host, -1, -1, 0) == 1,
            "X509_NAME_add_entry_by_txt");
    require(X509_set_issuer_name(certificate, name) == 1, "X509_set_issuer_name");
    X509_EXTENSION* const names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name,
                                                      "DNS:localhost,IP:127.0.0.1,IP:::1");
    require(names != nullptr && X509_add_ext(certificate, names, -1) == 1, "X509_add_ext");
    X509_EXTENSION_free(names);
}

// `notBefore` and `notAfter` are seconds from now.
Certificate makeSelfSigned(long notBefore, long notAfter) {
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    require(key != nullptr, "EVP_EC_gen");
    const X509Ptr certificate(X509_new(), X509_free);
    require(certificate != nullptr, "X509_new");
    require(X509_set_version(certificate.get(), X509_VERSION_3) == 1, "X509_set_version");
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), notBefore);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), notAfter);
    require(X509_set_pubkey(certificate.get(), key.get()) == 1, "X509_set_pubkey");
    addSubject(certificate.get());
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "X509_sign");

    const Bio certificateText(BIO_new(BIO_s_mem()), BIO_free);
    require(PEM_write_bio_X509(certificateText.get(), certificate.get()) == 1,
            "PEM_write_bio_X509");
    const Bio keyText(BIO_new(BIO_s_mem()), BIO_free);
    require(PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                     nullptr) == 1,
            "PEM_write_bio_PrivateKey");
    return {takeText(certificateText), takeText(keyText)};
}

}  // namespace

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "h2test-XXXXXX").string();
    require(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::write(std::string_view name, std::string_view content) const {
    std::string path = m_path + "/" + std::string(name);
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    require(!file.fail(), "TempDir::write");
    return path;
}

Certificate makeCertificate() { return makeSelfSigned(-kHour, 24 * kHour); }

Certificate makeExpiredCertificate() { return makeSelfSigned(-48 * kHour, -kHour); }

}  // namespace h2test
