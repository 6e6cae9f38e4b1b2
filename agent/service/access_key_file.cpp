#include "agent/service/access_key_file.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr size_t LEAST = 16;
constexpr size_t MOST = 512;

/** 64 hexadecimal digits and a line break. */
bool make_key_file(std::string const& path, std::string& error) {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        error = "Cannot make a new access key: there are no random numbers";
        return false;
    }
    char const digits[] = "0123456789abcdef";
    secure_string text;
    for (unsigned char const byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    text += '\n';
    int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    bool const written =
        file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        fsync(file) == 0;
    int const why = errno;
    if (file >= 0)
        close(file);
    if (written)
        return true;
    error = "Cannot write the access key " + path + ": " + strerror(why);
    if (file >= 0)
        unlink(path.c_str()); // a part of a key is worse than none
    return false;
}

bool is_key(secure_string const& text) {
    return text.size() >= LEAST && text.size() <= MOST &&
           std::all_of(text.begin(), text.end(),
                       [](char byte) { return byte > ' ' && byte < 127; });
}

} // namespace

bool load_access_key(std::string const& path, bool make, secure_string& key, std::string& error) {
    int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 && errno == ENOENT && make) {
        if (!make_key_file(path, error))
            return false;
        file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    struct stat status;
    if (file < 0 || fstat(file, &status) != 0) {
        error = "Cannot read the access key " + path + ": " + strerror(errno);
        if (file >= 0)
            close(file);
        return false;
    }
    secure_string text(MOST + 2, '\0');
    ssize_t const size = read(file, text.data(), text.size());
    close(file);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0)
        error = "The access key " + path +
                " may be read by others; make it a file of mode 0600, "
                "and exchange the key";
    else if (!is_key(text))
        error = "The access key " + path + " is no line of 16 to 512 printable characters";
    else {
        key = text;
        return true;
    }
    return false;
}
