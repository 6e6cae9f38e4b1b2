#include "host/mtf/scratch_file.h"

#include "tests/support/scoped_env.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace MTF;

namespace {

TEST(Scratch_File, IsWrittenAndReadAndHasNoName) {
    Temporary_Directory directory;
    Scoped_Env const env("TMPDIR", directory.path().c_str());
    Scratch_File const file = open_scratch_file();
    ASSERT_TRUE(file);
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
    EXPECT_EQ(0, fputs("text", file.get()) < 0);
    rewind(file.get());
    char buffer[8] = {};
    EXPECT_EQ(4u, fread(buffer, 1, sizeof(buffer), file.get()));
    EXPECT_STREQ("text", buffer);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(file.get()), F_GETFD)) << "no child must get it";
}

TEST(Scratch_File, CannotBeMadeInADirectoryThatIsNotThere) {
    Scoped_Env const env("TMPDIR", "/no/such/directory");
    EXPECT_FALSE(open_scratch_file());
    EXPECT_EQ(ENOENT, errno);
}

TEST(Scratch_File, ARelativeDirectoryIsNotTaken) {
    Scoped_Env const env("TMPDIR", "no-such-directory");
    EXPECT_TRUE(open_scratch_file());
}

} // namespace
