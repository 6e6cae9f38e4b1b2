#include "gaussdb/job/roach_line_handler.h"

#include "gaussdb/job/roach_progress_handler.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

#include <iterator>

namespace {

boost::regex const RE_BACKUP_KEY("Backup key: (\\d+_\\d+)");
boost::regex const RE_BACKUP_KEY_100("backup key: (\\d+_\\d+)");
boost::regex const RE_PROGRESS("N(\\d+).*?:\\s+(\\d+)(\\.\\d{2})?%");
boost::regex const RE_RESTORE("Restore SUCCESSFUL");
boost::regex const RE_CURRENT_PROGRESS("Current progress:\\s+(\\d+)\\..*");
// the tool prints the size of a backup like this; its metadata file, which is exact, is asked
// instead
[[maybe_unused]] boost::regex const RE_BKP_SIZE("BKP SIZE\\s+:\\s+(.*)");
// a control sequence with parameters, an escape with a letter, a lone carriage return
boost::regex const RE_CONTROL_SEQ("\x1B\\[[0-9;]*[A-Za-z]|\x1B[A-Za-z]|\x0D");

// what both spellings of a key line have in common: finding it is cheaper than two patterns
constexpr std::string_view KEY_TEXT = "ackup key: ";

template <typename T>
T number_of(qmrt::svmatch::value_type const& group) {
    return natoi<T>(std::string_view(group.first, group.second));
}

} // namespace

Roach_Line_Handler::Roach_Line_Handler(std::string* backup_key, Roach_Progress_Handler* handler)
    : Text_Process_Handler(TPHF_LOG_NONE, PIPES_CLOSED_TIMEOUT),
      backup_key_(backup_key),
      handler_(handler) {
    unlimited();
}

int Roach_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    if (!line || *line == '\0' || length == 0)
        return 0;
    log_roach_line(line, length);
    std::string_view const text(line, length);
    if (handler_ && *line == ESC)
        read_progress(text);
    if (backup_key_)
        read_backup_key(text);
    return 0;
}

void Roach_Line_Handler::log_roach_line(char const* line, size_t length) const {
    if (!line || *line == '\0' || length == 0)
        return;
    if (*line != ESC) {
        log_line(LM_INFO, line, length);
        return;
    }
    std::string plain;
    boost::regex_replace(std::back_inserter(plain), line, line + length, RE_CONTROL_SEQ, " ");
    log_line(LM_INFO, plain.data(), plain.size());
}

void Roach_Line_Handler::read_progress(std::string_view line) {
    qmrt::svmatch groups;
    if (qmrt::regex_search(line, groups, RE_PROGRESS)) {
        handler_->update(number_of<int>(groups[1]), number_of<int>(groups[2]));
    } else if (qmrt::regex_search(line, groups, RE_RESTORE)) {
        handler_->next_step();
    } else if (qmrt::regex_search(line, groups, RE_CURRENT_PROGRESS)) {
        unsigned int const progress = number_of<unsigned int>(groups[1]);
        if (progress <= 100)
            handler_->update(static_cast<int>(progress));
    }
}

void Roach_Line_Handler::read_backup_key(std::string_view line) {
    if (line.find(KEY_TEXT) == std::string_view::npos)
        return;
    qmrt::svmatch groups;
    for (boost::regex const& pattern : {std::cref(RE_BACKUP_KEY), std::cref(RE_BACKUP_KEY_100)})
        if (qmrt::regex_search(line, groups, pattern))
            backup_key_->assign(groups[1].first, groups[1].second);
}
