#include "xbsa/library/xbsa_digest.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <string>

namespace {

TEST(Xbsa_Digest_Test, it_is_the_canonical_form_of_xxh3) {
    EXPECT_EQ("99aa06d3014798d86001c324468d497f", Xbsa_Digest().text()) << "of nothing";
    std::string const content = "content";
    Xbsa_Digest whole, parts;
    whole.update(content.data(), content.size());
    parts.update(content.data(), 3);
    EXPECT_NE(whole.text(), parts.text());
    parts.update(content.data() + 3, content.size() - 3);
    EXPECT_EQ(whole.text(), parts.text());
}

TEST(Xbsa_Digest_Test, it_keeps_no_memory) {
    Xbsa_Digest().text(); // what the first one allocates for good
    size_t const before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i)
        Xbsa_Digest().update("x", 1);
    EXPECT_LT(mallinfo2().uordblks, before + 100000);
}

} // namespace
