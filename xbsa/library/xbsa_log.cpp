#include "xbsa/library/xbsa_log.h"

#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>

#include <cstdlib>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

namespace {

constexpr char LOG_KEYWORD[] = "ZENBRAK3_XBSA_LOG";

/** Appends lines to a file, each in one write, so that those of several processes do not mix. */
class File_Log : public ACE_Log_Msg_Backend {
public:
    explicit File_Log(char const* path)
        : file_(::open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0640)) {}

    int open(char const*) override { return 0; }
    int reset() override { return 0; }
    int close() override { return 0; }
    ssize_t log(ACE_Log_Record& record) override {
        time_t const now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        char stamp[32] = "";
        strftime(stamp, sizeof stamp, "%F %T", &local);
        std::string const line = string_sprintf(
            "%s %d %s %s\n", stamp, static_cast<int>(getpid()),
            ACE_Log_Record::priority_name(static_cast<ACE_Log_Priority>(record.type())),
            qmrt::to_one_line(without_end(record.msg_data())).c_str());
        return file_ ? write(file_.get(), line.data(), line.size()) : 0;
    }

private:
    static std::string without_end(std::string text) {
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        return text;
    }
    File_Descriptor file_;
};

/** Whether the process has done anything with its log; ACE's own beginning is stderr alone. */
bool is_somebody_s() {
    return ACE_LOG_MSG->flags() != ACE_Log_Msg::STDERR || ACE_Log_Msg::msg_backend();
}

} // namespace

void xbsa_prepare_log() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (is_somebody_s())
            return;
        ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
        char const* const path = std::getenv(LOG_KEYWORD);
        if (!path || !*path)
            return;
        // never ends: threads may log until the very end of the process
        ACE_Log_Msg::msg_backend(new File_Log(path));
        ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM);
    });
}
