#include "agent/instances/account_key.h"

#include "qmrt/file.h"
#include "qmrt/format.h"

#include <openssl/rand.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool fail(std::string const& path, std::string const& why, std::string& error) {
    error = "The key of the accounts, " + path + ", cannot be used: " + why;
    return false;
}

bool make_key_file(std::string const& path, std::string& error) {
    secure_string bytes(Account_Key::SIZE, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()),
                   static_cast<int>(bytes.size())) != 1)
        return fail(path, "there are no random bytes for a new one", error);
    if (write_file_atomically(path.c_str(), {bytes.data(), bytes.size()}, 0600) == -1)
        return fail(path, string_sprintf("it cannot be made, %s", strerror(errno)), error);
    return true;
}

/** True for a file that only we can have written and only we can read. */
bool check_file(std::string const& path, int file, std::string& error) {
    struct stat status;
    if (fstat(file, &status) == -1)
        return fail(path, strerror(errno), error);
    if (!S_ISREG(status.st_mode))
        return fail(path, "it is no regular file", error);
    if (status.st_uid != geteuid())
        return fail(path, "it belongs to another user", error);
    if (status.st_mode & 077)
        return fail(path,
                    string_sprintf("others may read it (mode %04o); whoever did knows the "
                                   "passwords. Give it mode 0600, and change them",
                                   status.st_mode & 07777u),
                    error);
    if (status.st_size != static_cast<off_t>(Account_Key::SIZE))
        return fail(path,
                    string_sprintf("it has %lld bytes and not %zu; bring it back from a copy, or "
                                   "move it away and enter the passwords again",
                                   static_cast<long long>(status.st_size), Account_Key::SIZE),
                    error);
    return true;
}

} // namespace

std::optional<Account_Key> Account_Key::load(std::string const& path, std::string& error) {
    struct stat status;
    if (lstat(path.c_str(), &status) == -1 && errno == ENOENT && !make_key_file(path, error))
        return std::nullopt;
    File_Descriptor const file(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        fail(path, errno == ELOOP ? "it is a link" : strerror(errno), error);
        return std::nullopt;
    }
    if (!check_file(path, file.get(), error))
        return std::nullopt;
    Account_Key key;
    key.bytes_.resize(SIZE);
    if (pread(file.get(), key.bytes_.data(), SIZE, 0) != static_cast<ssize_t>(SIZE)) {
        fail(path, "it cannot be read", error);
        return std::nullopt;
    }
    return key;
}
