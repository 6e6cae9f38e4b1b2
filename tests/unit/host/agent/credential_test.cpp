#include "host/agent/credential.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

std::string encrypt(std::string_view plain) {
    return encrypt_string(plain, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
}

std::string decrypt(std::string_view text) {
    secure_string plain;
    EXPECT_TRUE(decrypt_secure_string(text, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH, plain));
    return plain.plain();
}

void expect_refused(std::string_view text) {
    secure_string plain("before");
    EXPECT_FALSE(decrypt_secure_string(text, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH, plain));
    EXPECT_LOGGED(LM_ERROR, "Failed to decrypt a credential: ");
    EXPECT_EQ("before", plain.plain());
}

TEST(Credential, what_was_encrypted_is_read_back) {
    for (std::string const& plain :
         {std::string(), std::string("x"), std::string("Huawei@123"), std::string("\0\xff\n", 3),
          std::string(100000, 'p'), std::string("p\xc3\xa4ssw\xc3\xb6rd")})
        EXPECT_EQ(plain, decrypt(encrypt(plain)));
}

TEST(Credential, the_text_is_one_line_of_base64_that_shows_nothing) {
    std::string const text = encrypt("secret-secret-secret");
    EXPECT_EQ(std::string::npos, text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklm"
                                                        "nopqrstuvwxyz0123456789+/="));
    EXPECT_EQ(0u, text.size() % 4);
    EXPECT_EQ(std::string::npos, text.find("secret"));
}

TEST(Credential, one_password_never_looks_the_same_twice) {
    EXPECT_NE(encrypt("x"), encrypt("x"));
}

TEST(Credential, an_older_text_stays_readable) {
    EXPECT_EQ("Gauss_234",
              decrypt("AcYr0cObtQe21jWh/662jdOl7bTVvAN8q15Lj8E2BUoLp/okEnUJLOT78qe4XrJGsANxuqU0"));
}

TEST(Credential, takes_texts_of_every_kind) {
    EXPECT_EQ("a", decrypt(encrypt_string("a", CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH)));
    EXPECT_EQ("b", decrypt(encrypt(secure_string("b"))));
    EXPECT_EQ("c",
              decrypt_secure_string(encrypt("c"), CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH).plain());
}

TEST(Credential, another_key_is_refused) {
    std::string const text = encrypt_string("x", "key", 3);
    secure_string plain("before");
    EXPECT_FALSE(decrypt_secure_string(text, "kex", 3, plain));
    EXPECT_FALSE(decrypt_secure_string(text, "key2", 4, plain));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "wrong key, or it was changed"));
    EXPECT_EQ("before", plain.plain());
    EXPECT_TRUE(decrypt_secure_string(text, "key2", 3, plain));
}

TEST(Credential, a_text_with_any_bit_flipped_is_refused) {
    std::string const text = encrypt("password");
    for (size_t place = 0; place < text.size(); ++place) {
        std::string changed = text;
        changed[place] = changed[place] == 'A' ? 'B' : 'A';
        expect_refused(changed);
    }
}

TEST(Credential, another_spelling_of_the_same_bytes_is_refused) {
    // two characters of padding leave four bits of the last one without a meaning
    std::string text = encrypt("a");
    ASSERT_TRUE(text.ends_with("=="));
    char& last = text[text.size() - 3];
    ASSERT_NE(std::string::npos, std::string("AQgw").find(last));
    ++last;
    expect_refused(text);
}

TEST(Credential, a_text_that_was_cut_is_refused) {
    std::string const text = encrypt("password");
    for (size_t size = 0; size < text.size(); ++size)
        expect_refused(text.substr(0, size));
}

TEST(Credential, what_is_no_text_form_is_refused) {
    std::string const text = encrypt("x");
    for (std::string const& other :
         {std::string("password"), std::string("===="), std::string("AAAA"), std::string(64, 'A'),
          std::string("\0\0\0\0", 4), text + text, text + "\n", " " + text + "   ",
          "\n\n\n\n" + text, std::string(1000000, '/')})
        expect_refused(other);
}

TEST(Credential, a_failure_shows_neither_text_nor_key) {
    std::string const text = encrypt("password");
    expect_refused(text.substr(4));
    EXPECT_NOT_LOGGED(text.substr(4, 20));
    EXPECT_NOT_LOGGED(CREDENTIAL_KEY);
}

TEST(Credential, the_short_form_gives_an_empty_text_on_failure) {
    EXPECT_EQ("", decrypt_secure_string("x", CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH).plain());
    EXPECT_LOGGED(LM_ERROR, "Failed to decrypt a credential: it is not one, or was cut\n");
}

TEST(Credential, null_and_empty_arguments_are_broken_preconditions) {
    char const* const none = nullptr;
    secure_string plain;
    EXPECT_EQ("", encrypt_string(none, "key", 3));
    EXPECT_CHECK_LOGGED("plain is NULL");
    EXPECT_EQ("", encrypt_string("x", none, 3));
    EXPECT_CHECK_LOGGED("key is NULL");
    EXPECT_EQ("", encrypt_string("x", "", 0));
    EXPECT_CHECK_LOGGED("key_length(0) < 1");
    EXPECT_FALSE(decrypt_secure_string("x", none, 3, plain));
    EXPECT_CHECK_LOGGED("key is NULL");
    EXPECT_FALSE(decrypt_secure_string("x", "", 0, plain));
    EXPECT_CHECK_LOGGED("key_length(0) < 1");
}

} // namespace
