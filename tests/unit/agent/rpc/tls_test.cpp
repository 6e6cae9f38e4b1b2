#include "agent/rpc/tls.h"

#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <memory>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

namespace {

class Self_Signed : public testing::Test {
protected:
    bool make(std::string const& host) {
        return make_self_signed(certificate_, key_, host, error_);
    }
    std::shared_ptr<X509> certificate() const {
        std::unique_ptr<FILE, int (*)(FILE*)> const file(fopen(certificate_.c_str(), "r"), fclose);
        return {PEM_read_X509(file.get(), nullptr, nullptr, nullptr), X509_free};
    }
    static mode_t mode(std::string const& path) {
        struct stat status {};
        EXPECT_EQ(0, stat(path.c_str(), &status));
        return status.st_mode & 07777;
    }

    Temporary_Directory files_;
    std::string const certificate_ = files_.path("c.pem");
    std::string const key_ = files_.path("k.pem");
    std::string error_;
};

} // namespace

TEST_F(Self_Signed, the_certificate_is_for_the_host_and_the_loopback) {
    ASSERT_TRUE(make("db-1.example")) << error_;
    auto const made = certificate();
    ASSERT_TRUE(made);
    for (char const* host : {"db-1.example", "localhost"})
        EXPECT_EQ(1, X509_check_host(made.get(), host, 0, 0, nullptr)) << host;
    for (char const* address : {"127.0.0.1", "::1"})
        EXPECT_EQ(1, X509_check_ip_asc(made.get(), address, 0)) << address;
    EXPECT_EQ(0, X509_check_host(made.get(), "other", 0, 0, nullptr));
    EXPECT_EQ(1, X509_verify(made.get(), X509_get0_pubkey(made.get())));
    EXPECT_GT(0, X509_cmp_current_time(X509_get0_notBefore(made.get())));
    EXPECT_LT(0, X509_cmp_current_time(X509_get0_notAfter(made.get())));
}

TEST_F(Self_Signed, an_address_is_one_in_the_certificate) {
    ASSERT_TRUE(make("192.0.2.7")) << error_;
    EXPECT_EQ(1, X509_check_ip_asc(certificate().get(), "192.0.2.7", 0));
}

TEST_F(Self_Signed, the_key_is_its_own_and_for_its_owner_only) {
    ASSERT_TRUE(make("host")) << error_;
    EXPECT_EQ(0600u, mode(key_));
    EXPECT_EQ(0644u, mode(certificate_));
    std::unique_ptr<FILE, int (*)(FILE*)> const file(fopen(key_.c_str(), "r"), fclose);
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> const key(
        PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    ASSERT_TRUE(key);
    EXPECT_EQ(1, X509_check_private_key(certificate().get(), key.get()));
    std::string const first = files_.read("k.pem");
    ASSERT_TRUE(make("host"));
    EXPECT_NE(first, files_.read("k.pem"));
}

TEST_F(Self_Signed, a_host_name_that_could_pass_for_more_is_refused) {
    for (char const* host : {"", "a,DNS:bank.example", "a b", "a\nb", "\xC3\xA4"}) {
        EXPECT_FALSE(make(host)) << host;
        EXPECT_NE("", error_);
    }
    EXPECT_EQ("", files_.read("k.pem"));
}

TEST_F(Self_Signed, a_place_that_cannot_be_written_is_an_error) {
    std::string error;
    EXPECT_FALSE(make_self_signed(files_.path("c"), files_.path("no/k"), "host", error));
    EXPECT_NE(std::string::npos, error.find("no/k")) << error;
    EXPECT_EQ("", files_.read("c"));
}
