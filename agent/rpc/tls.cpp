#include "agent/rpc/tls.h"

#include "qmrt/file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace {

constexpr long VALID_SECONDS = 10L * 365 * 24 * 3600;
constexpr long CLOCKS_APART_SECONDS = 24L * 3600; ///< another host's clock may be slow
constexpr int SERIAL_BITS = 127;
constexpr int MAX_COMMON_NAME = 64; ///< RFC 5280, ub-common-name

template <auto Free>
struct Freeing {
    template <typename T>
    void operator()(T* object) const {
        Free(object);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Freeing<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freeing<X509_free>>;
using Bio = std::unique_ptr<BIO, Freeing<BIO_free>>;

bool is_address(std::string const& host) {
    unsigned char buffer[sizeof(in6_addr)];
    return ::inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

/** What of a host name may stand in a list of OpenSSL's own notation. */
bool is_plain(std::string const& host) {
    constexpr char PLAIN[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:";
    return !host.empty() && host.find_first_not_of(PLAIN) == std::string::npos;
}

bool set_serial(X509* certificate) {
    std::unique_ptr<BIGNUM, Freeing<BN_free>> const number(BN_new());
    return number && BN_rand(number.get(), SERIAL_BITS, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
           BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate));
}

bool set_name(X509* certificate, std::string const& host) {
    std::string const name = host.substr(0, MAX_COMMON_NAME);
    X509_NAME* const subject = X509_get_subject_name(certificate);
    return X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                                      reinterpret_cast<unsigned char const*>(name.data()),
                                      static_cast<int>(name.size()), -1, 0) == 1 &&
           X509_set_issuer_name(certificate, subject) == 1;
}

bool add_extension(X509* certificate, int kind, std::string const& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, Freeing<X509_EXTENSION_free>> const extension(
        X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool add_extensions(X509* certificate, std::string const& host) {
    std::string const names =
        (is_address(host) ? "IP:" : "DNS:") + host + ",DNS:localhost,IP:127.0.0.1,IP:::1";
    // a certificate that is its own authority has to be one, or some clients do not trust it
    return add_extension(certificate, NID_basic_constraints, "critical,CA:TRUE") &&
           add_extension(certificate, NID_subject_key_identifier, "hash") &&
           add_extension(certificate, NID_subject_alt_name, names);
}

Certificate make_certificate(EVP_PKEY* key, std::string const& host) {
    Certificate certificate(X509_new());
    X509* const raw = certificate.get();
    bool const made = raw && X509_set_version(raw, X509_VERSION_3) == 1 && set_serial(raw) &&
                      X509_gmtime_adj(X509_getm_notBefore(raw), -CLOCKS_APART_SECONDS) &&
                      X509_gmtime_adj(X509_getm_notAfter(raw), VALID_SECONDS) &&
                      X509_set_pubkey(raw, key) == 1 && set_name(raw, host) &&
                      add_extensions(raw, host) && X509_sign(raw, key, EVP_sha256()) != 0;
    return made ? std::move(certificate) : nullptr;
}

std::string_view content(BIO* bio) {
    char* data = nullptr;
    long const size = BIO_get_mem_data(bio, &data);
    return {data, static_cast<size_t>(size)};
}

bool write(std::string const& path, BIO* bio, mode_t mode, std::string& error) {
    if (write_file_atomically(path.c_str(), content(bio), mode) == 0)
        return true;
    error = "cannot write " + path + ", " + std::strerror(errno);
    return false;
}

} // namespace

bool make_self_signed(std::string const& certificate_path, std::string const& key_path,
                      std::string const& host_name, std::string& error) {
    if (!is_plain(host_name)) {
        error = "a certificate cannot be made out to the host name '" + host_name + "'";
        return false;
    }
    Key const key(EVP_EC_gen("P-256"));
    Certificate const certificate = key ? make_certificate(key.get(), host_name) : nullptr;
    Bio const key_text(BIO_new(BIO_s_secmem())); // cleared when it is given back
    Bio const certificate_text(BIO_new(BIO_s_mem()));
    if (!certificate || !key_text || !certificate_text ||
        PEM_write_bio_PKCS8PrivateKey(key_text.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                      nullptr) != 1 ||
        PEM_write_bio_X509(certificate_text.get(), certificate.get()) != 1) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        error = std::string("cannot make a certificate, ") + text;
        return false;
    }
    return write(key_path, key_text.get(), 0600, error) &&
           write(certificate_path, certificate_text.get(), 0644, error);
}
