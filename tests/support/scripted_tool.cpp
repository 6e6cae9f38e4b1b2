/**
 * Plays any outside tool from a script. A test links this program under the tool's name into a
 * directory on the PATH (see scripted_tools.h, which writes the script and reads the records). A
 * link elsewhere may lead to that link.
 *
 * Beside the link NAME lie NAME.script and the directory calls/, which anyone may write to. Each
 * call takes the next part of the script (parts are divided by lines "---", the last one serves all
 * further calls) and carries its lines out in order:
 *
 *     read             read stdin to its end, and record it
 *     line             read stdin up to a line break, and record it
 *     out TEXT         print TEXT and a line break        outraw TEXT   print TEXT alone
 *     err TEXT         the same on stderr                 errraw TEXT
 *     repeat N TEXT    print TEXT N times on stdout
 *     run COMMAND      run a command line by /bin/sh
 *     wait             go on when the file NAME.go has appeared beside the link
 *     close            close stdout and stderr
 *     signal N         end by that signal
 *     exit N           end with that status; without it, 0
 *
 * In TEXT, \n \r \e \0 \\ stand for the bytes that C would mean (\e for escape).
 *
 * Records, for call number N from 1: calls/NAME.N.args and .env hold arguments and environment,
 * each closed by a NUL; .stdin what was read; .who is "uid gid cwd" and the groups, one a line. It
 * uses nothing but the C library, so that it runs as any user from anywhere.
 */
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/auxv.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

[[noreturn]] void fail(std::string const& what) {
    std::fprintf(stderr, "scripted tool: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(125);
}

void print(int fd, std::string const& text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t const count = write(fd, text.data() + done, text.size() - done);
        if (count == -1)
            fail("write");
        done += static_cast<size_t>(count);
    }
}

std::string unescape(std::string const& text) {
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + 1 == text.size()) {
            result += text[at];
            continue;
        }
        switch (text[++at]) {
        case 'n':
            result += '\n';
            break;
        case 'r':
            result += '\r';
            break;
        case 'e':
            result += '\033';
            break;
        case '0':
            result += '\0';
            break;
        default:
            result += text[at];
        }
    }
    return result;
}

/** Numbers the calls from 1, also when several run at once. */
int next_call(std::string const& prefix) {
    int const fd = open((prefix + ".count").c_str(), O_RDWR | O_CREAT, 0666);
    if (fd == -1 || flock(fd, LOCK_EX) == -1)
        fail(prefix + ".count");
    fchmod(fd, 0666);
    char text[16] = {};
    if (read(fd, text, sizeof text - 1) == -1)
        fail("count");
    int const call = std::atoi(text) + 1;
    std::string const written = std::to_string(call);
    if (pwrite(fd, written.data(), written.size(), 0) == -1)
        fail("count");
    close(fd);
    return call;
}

void record(std::string const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary) << content;
    chmod(path.c_str(), 0644);
}

std::string list(char** entries) {
    std::string text;
    for (; *entries; ++entries)
        text.append(*entries, std::strlen(*entries) + 1);
    return text;
}

std::string identity() {
    char directory[4096] = {};
    if (!getcwd(directory, sizeof directory))
        fail("getcwd");
    std::ostringstream text;
    text << geteuid() << " " << getegid() << " " << directory << "\n";
    gid_t groups[256];
    for (int left = getgroups(256, groups), at = 0; at < left; ++at)
        text << groups[at] << "\n";
    return text.str();
}

/** The lines of part number @a call of a script; of the last part when there are fewer. */
std::vector<std::string> part_of(std::string const& path, int call) {
    std::ifstream file(path);
    if (!file)
        fail(path);
    std::vector<std::vector<std::string>> parts(1);
    for (std::string line; std::getline(file, line);) {
        if (line == "---")
            parts.emplace_back();
        else
            parts.back().push_back(line);
    }
    size_t const index = static_cast<size_t>(call) - 1;
    return index < parts.size() ? parts[index] : parts.back();
}

/** The link beside the script: what was run, or what that is a link to. */
std::string find_link() {
    std::string const run = reinterpret_cast<char const*>(getauxval(AT_EXECFN));
    char target[4096];
    ssize_t const length = readlink(run.c_str(), target, sizeof target);
    std::string const other(target, length > 0 ? static_cast<size_t>(length) : 0);
    return access((other + ".script").c_str(), F_OK) == 0 ? other : run;
}

std::string read_stdin(bool one_line) {
    std::string text;
    char byte;
    while (read(STDIN_FILENO, &byte, 1) == 1) {
        text += byte;
        if (one_line && byte == '\n')
            break;
    }
    return text;
}

} // namespace

int main(int, char** arguments) {
    std::string const link = find_link();
    size_t const slash = link.rfind('/');
    std::string const directory = slash == std::string::npos ? "." : link.substr(0, slash);
    std::string const name = link.substr(slash + 1);
    std::string const prefix = directory + "/calls/" + name;
    int const call = next_call(prefix);
    std::string const records = prefix + "." + std::to_string(call);
    record(records + ".args", list(arguments));
    record(records + ".env", list(environ));
    record(records + ".who", identity());

    std::string input;
    for (std::string const& step : part_of(directory + "/" + name + ".script", call)) {
        size_t const blank = step.find(' ');
        std::string const verb = step.substr(0, blank);
        std::string const text = blank == std::string::npos ? "" : unescape(step.substr(blank + 1));
        if (verb == "read" || verb == "line") {
            input += read_stdin(verb == "line");
            record(records + ".stdin", input);
        } else if (verb == "out")
            print(STDOUT_FILENO, text + "\n");
        else if (verb == "outraw")
            print(STDOUT_FILENO, text);
        else if (verb == "err")
            print(STDERR_FILENO, text + "\n");
        else if (verb == "errraw")
            print(STDERR_FILENO, text);
        else if (verb == "repeat") {
            size_t const end = text.find(' ');
            for (int left = std::atoi(text.c_str()); left > 0; --left)
                print(STDOUT_FILENO, text.substr(end + 1));
        } else if (verb == "run") {
            if (std::system(text.c_str()) == -1)
                fail("run " + text);
        } else if (verb == "wait") {
            while (access((directory + "/" + name + ".go").c_str(), F_OK) == -1)
                usleep(1000);
        } else if (verb == "close") {
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
        } else if (verb == "signal")
            raise(std::atoi(text.c_str()));
        else if (verb == "exit")
            return std::atoi(text.c_str());
        else if (!verb.empty())
            fail("unknown step " + step);
    }
    return 0;
}
