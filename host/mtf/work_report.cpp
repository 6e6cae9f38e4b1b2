#include "host/mtf/work_report.h"

#include "qmrt/log.h"
#include "qmrt/utf8.h"

namespace MTF {

namespace {
constexpr uint64_t BYTES_PER_EVENT = 8 * 1024 * 1024;
}

void Work_Report::notify(Event::Type type, Error_Code code, std::string const& path,
                         std::string const& text) {
    if (handler_)
        handler_->notify_event({type, code, path, text, entries_, bytes_});
}

void Work_Report::begin() {
    notify(Event::BEGIN, E_OK, {}, {});
}

bool Work_Report::canceled() {
    if (!canceled_ && handler_)
        canceled_ = handler_->canceling();
    return canceled_;
}

void Work_Report::add_bytes(std::string const& path, uint64_t bytes) {
    bytes_ += bytes;
    if (!handler_ || handler_->mode() != PROGRESS_REPORT_BYTES ||
        bytes_ - told_bytes_ < BYTES_PER_EVENT)
        return;
    told_bytes_ = bytes_;
    notify(Event::PROGRESS, E_OK, path, {});
}

void Work_Report::add_entry(std::string const& path) {
    ++entries_;
    if (handler_ && handler_->mode() != PROGRESS_REPORT_NONE)
        notify(Event::PROGRESS, E_OK, path, {});
}

void Work_Report::skipped(std::string const& path, Error_Code code, std::string const& text) {
    ++left_out_;
    QMRT_LOG(LM_WARNING, "Left out %s, %s\n", qmrt::to_one_line(path).c_str(),
             qmrt::to_one_line(text.empty() ? error_text(code) : text).c_str());
    notify(Event::SKIPPED, code, path, text);
}

void Work_Report::warning(std::string const& path, std::string const& text) {
    QMRT_LOG(LM_WARNING, "%s: %s\n", qmrt::to_one_line(path).c_str(),
             qmrt::to_one_line(text).c_str());
    notify(Event::WARNING, E_OK, path, text);
}

Error_Code Work_Report::failed(Error_Code code, std::string const& text) {
    QMRT_LOG(LM_ERROR, "%s\n", qmrt::to_one_line(text).c_str());
    return code;
}

void Work_Report::end(Error_Code code) {
    notify(Event::END, code, {}, error_text(code));
}

} // namespace MTF
