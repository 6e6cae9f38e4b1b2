#include "agent/service/agent_log.h"

#include "qmrt/format.h"
#include "qmrt/log.h"

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>
#include <ace/OS_NS_time.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>

namespace {

/** A priority: ACE's, syslog's, and its word. */
struct Level_Row {
    ACE_Log_Priority priority;
    int level;
    char const* word;
};

constexpr Level_Row LEVELS[] = {
    {LM_EMERGENCY, LOG_CRIT, "critical"}, // a broken precondition: our fault, not the machine's end
    {LM_ALERT, LOG_ALERT, "alert"},       {LM_CRITICAL, LOG_CRIT, "critical"},
    {LM_ERROR, LOG_ERR, "error"},         {LM_WARNING, LOG_WARNING, "warning"},
    {LM_NOTICE, LOG_NOTICE, "notice"},    {LM_INFO, LOG_INFO, "info"},
    {LM_DEBUG, LOG_DEBUG, "debug"},
};

Level_Row const& row_of(unsigned long priority) {
    for (Level_Row const& row : LEVELS)
        if (priority == static_cast<unsigned long>(row.priority))
            return row;
    return LEVELS[sizeof LEVELS / sizeof *LEVELS - 1];
}

std::atomic<int> lowest_level = LOG_INFO;

std::string time_stamp() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts;
    localtime_r(&now.tv_sec, &parts);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return string_sprintf("%s.%03ld", text, now.tv_nsec / 1000000);
}

class Agent_Log : public ACE_Log_Msg_Backend {
public:
    explicit Agent_Log(bool to_journal)
        : to_journal_(to_journal), marks_(getenv("JOURNAL_STREAM") != nullptr) {}

    int open(ACE_TCHAR const*) override { return 0; }
    int reset() override { return 0; }
    int close() override { return 0; }

    ssize_t log(ACE_Log_Record& record) override {
        Level_Row const& row = row_of(record.type());
        if (row.level > lowest_level)
            return 0;
        std::string text(record.msg_data());
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        if (to_journal_)
            return sd_journal_print(row.level, "%s", text.c_str());
        std::string line =
            marks_ ? string_sprintf("<%d>", row.level) : time_stamp() + " " + row.word + " ";
        // one call, so that lines of several threads do not run into each other
        line += text + "\n";
        return write(STDERR_FILENO, line.data(), line.size());
    }

private:
    bool const to_journal_;
    bool const marks_;
};

} // namespace

void agent_log_level(std::string const& level) {
    for (Level_Row const& row : LEVELS)
        if (level == row.word)
            lowest_level = row.level;
}

void open_agent_log(std::string const& target, std::string const& level) {
    agent_log_level(level);
    // never destroyed: threads log until the very end
    static Agent_Log* const log = new Agent_Log(target == "journal");
    ACE_Log_Msg::msg_backend(log);
    ACE_Log_Msg::instance()->open("zenbrak3-agent",
                                  ACE_Log_Msg::CUSTOM | ACE_Log_Msg::MSG_CALLBACK);
}
