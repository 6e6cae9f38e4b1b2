#ifndef QMRT_NAMES_H
#define QMRT_NAMES_H

#include <cstddef>
#include <string>
#include <string_view>

/**
 * What a name may be. Names come from messages, files, environments, tools and command lines, and
 * end up in paths, command lines, logs and messages: everything that takes a name from outside asks
 * these rules first.
 *
 * Each fault_of_ function returns "" for a text that may be such a name, and else why not, in words
 * that follow the member or the name: "has a newline in it". All are thread-safe and log nothing.
 */
namespace names {

constexpr size_t MAX_ID = 128;           ///< bytes
constexpr size_t MAX_LABEL = 255;        ///< bytes
constexpr size_t MAX_OBJECT = 4000;      ///< bytes, of the path of an object in a pool
constexpr size_t MAX_LINE = 4096;        ///< bytes, terminator not counted
constexpr size_t MAX_TEXT = 1024 * 1024; ///< bytes, of what is not a name

/** A reason why a text may not be a name; "" for one that may. */
using Rule = std::string (*)(std::string_view);

/** Valid UTF-8 without NUL, whatever its length. */
std::string fault_of_bytes(std::string_view text);

/** Text of any kind, such as a script: valid UTF-8 without NUL, at most MAX_TEXT bytes; or "". */
std::string fault_of_text(std::string_view text);

/** One line: valid UTF-8 without control characters, at most MAX_LINE bytes; or "". */
std::string fault_of_line(std::string_view line);

/** What people call something: a line of 1 to MAX_LABEL bytes with no blank at either end. */
std::string fault_of_label(std::string_view label);

/** The name of a pool or a definition: a label that cannot be taken for an id. */
std::string fault_of_title(std::string_view title);

/**
 * An id: of a set, a resource, an instance, a pool, a host, a user, a run; a key of a backup, too.
 * 1 to MAX_ID letters, digits, ".", "_" and "-", the first a letter, a digit or "_".
 */
std::string fault_of_id(std::string_view id);

/** One file's name: a line of 1 to 255 bytes without "/", and not "." or "..". */
std::string fault_of_file(std::string_view name);

/** A path below a directory: names of files with one "/" between them, at most MAX_OBJECT bytes. */
std::string fault_of_relative_path(std::string_view path);

/** "/", or "/" and a path below it; "//" and a "/" at the end may be there. At most 4095 bytes. */
std::string fault_of_absolute_path(std::string_view path);

/**
 * The name of an instance or a cluster: a file's name with room for an ending of 16 bytes, with
 * nothing that a shell or a tool takes for something else, that is not the name of another file in
 * the cluster registry's directory (is_registry_name()) and cannot be taken for an id.
 */
std::string fault_of_instance(std::string_view name);

/** The name of a database: a label with nothing that a shell takes for something else. */
std::string fault_of_database(std::string_view name);

/** The name of an account of the operating system or the database: a label of at most 128 bytes. */
std::string fault_of_account(std::string_view name);

/** A host's name or address: 1 to 253 letters, digits, ".", "-", "_", ":" and "%"; no "-" first. */
std::string fault_of_host(std::string_view host);

/**
 * The name of a policy: an id that is not a name of the cluster registry's directory, where the
 * policies lie too. That it is not the name of a cluster either is for the caller to check.
 */
std::string fault_of_policy(std::string_view name);

/**
 * Where ssh logs in: a host, or an account of letters, digits, ".", "_" and "-", "@" and a host.
 */
std::string fault_of_ssh_address(std::string_view address);

/**
 * Options that ssh and scp read alike, each a word: "-4", "-6", "-C", "-q", "-i FILE" and
 * "-o NAME=VALUE" for the names of a list. An option that starts a program, or that accepts a host
 * key which nobody has confirmed, is not in the list. "" for none.
 */
std::string fault_of_ssh_options(std::string_view options);

/** Shell text for a remote machine that stands between single quotes here: a line without "'". */
std::string fault_of_remote_commands(std::string_view commands);

/** An absolute path that is the same word in every shell. */
std::string fault_of_bare_path(std::string_view path);

/**
 * A name in a list of names, one on a line, a schema's and a table's parted by a ".": a label
 * without a ".".
 */
std::string fault_of_listed_name(std::string_view name);

/** True for "meta", "media" and what ends as the files beside a cluster's or a policy's own. */
[[nodiscard]] bool is_registry_name(std::string_view name);

/** A name from outside as a message can show it: one line of valid UTF-8, cut after 200 bytes. */
std::string shown(std::string_view name);

} // namespace names

#endif
