#ifndef HOST_PROCESS_CHILD_SETUP_H
#define HOST_PROCESS_CHILD_SETUP_H

#include "host/process/child_start.h"

#include <ace/Process.h>

#include <string>
#include <vector>

/**
 * What ACE_Process_Options ask for, made ready for start_child(). It holds what the plan points at,
 * so it must outlive the start; the working directory's text stays the options' own. For one use.
 */
class Child_Setup {
public:
    Child_Setup() = default;
    Child_Setup(Child_Setup const&) = delete;
    Child_Setup& operator=(Child_Setup const&) = delete;

    /**
     * Reads the options. Taken from them: the command line, the environment, whether the parent's
     * environment and descriptors are inherited, the working directory, the user, the process group
     * and the handles of set_handles(). Their other settings are not for this system.
     * @return false with reason() set, for anything that would start another program than was
     * meant.
     */
    [[nodiscard]] bool prepare(ACE_Process_Options& options);

    /** Why start_child() has failed, with the names that the plan has for it. */
    void explain_failed_start();

    /** As a part of a sentence; "" as long as nothing has failed. */
    std::string const& reason() const { return reason_; }
    /** The first word of the command line. */
    std::string const& program() const { return program_; }

    Child_Plan plan;

private:
    [[nodiscard]] bool prepare_command(ACE_Process_Options& options);
    [[nodiscard]] bool prepare_environment(ACE_Process_Options& options);
    void prepare_candidates();
    [[nodiscard]] bool prepare_user(ACE_Process_Options const& options);
    [[nodiscard]] bool prepare_groups(uid_t uid, gid_t gid);
    [[nodiscard]] bool fail(std::string reason, int error);
    std::string describe_user() const;
    std::string describe_failed_exec() const;

    std::string reason_;
    std::string program_;
    std::vector<std::string> words_;
    std::vector<char*> argv_;
    std::vector<char*> envp_;
    bool has_path_ = false;
    std::string path_;
    std::vector<std::string> candidates_;
    std::vector<char const*> candidate_texts_;
    std::string user_name_;
    std::vector<gid_t> groups_;
};

#endif
