#ifndef HOST_PROCESS_PROCESS_OPTIONS_H
#define HOST_PROCESS_PROCESS_OPTIONS_H

#include <ace/Process.h>

#include <string>

/**
 * Settings of a child that ACE_Process_Options takes wrongly in silence. Each function returns
 * false after an error line, and leaves the options so that ACE_Process_Ex::spawn() refuses them:
 * a caller that overlooks the false runs nothing.
 *
 * The options themselves belong to one thread.
 */

/**
 * Sets the command line by a printf format.
 * @return false when the text does not fit the options' buffer; the command line is then empty.
 *         Of a buffer of 1024 bytes a text may take 1022: one more fills the buffer, and spawn()
 *         takes such a line for one that ACE has cut.
 */
[[nodiscard]] bool set_command_line(ACE_Process_Options& options, char const* format, ...)
    __attribute__((format(printf, 2, 3)));

/**
 * The child is to run as this user of the operating system, with that user's group and
 * supplementary groups.
 * @return false when the user is null, "" or unknown, or cannot be looked up. The options are
 *         refused until a later call names a user that is known.
 */
[[nodiscard]] bool set_process_user(ACE_Process_Options& options, char const* user);

/**
 * Sets one environment variable of the child, any text taken as it stands. A later setting of the
 * same name wins, also over an inherited one.
 * @return false when the name is null, "" or has a "=", the value is null, or the options' buffer
 *         has no room left. The options are refused from then on.
 */
[[nodiscard]] bool set_process_env(ACE_Process_Options& options, char const* name,
                                   char const* value);

/**
 * Sets one environment variable that another user decides, such as a line of that user's profile.
 * What a program loads and runs depends on its environment, so from then on the options are refused
 * when the child would run as root, whatever the variable. A "=" in the name ends the name.
 * @return false when the name is empty, the value is null, or the options' buffer has no room left.
 *         The options are refused from then on.
 */
[[nodiscard]] bool set_foreign_env(ACE_Process_Options& options, std::string const& name,
                                   char const* value);

/** Why the functions above have left @a options to be refused; null when they have not. */
char const* refusal_of(ACE_Process_Options const& options);

#endif
