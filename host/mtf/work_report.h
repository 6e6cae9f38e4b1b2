#ifndef HOST_MTF_WORK_REPORT_H
#define HOST_MTF_WORK_REPORT_H

#include "host/mtf/event_handler.h"

#include <memory>

namespace MTF {

/** Counts what a backup or a restore does, logs what goes wrong and tells the handler. */
class Work_Report {
public:
    /** @param handler  may be null: then nothing is told, and nothing cancels */
    explicit Work_Report(std::shared_ptr<Event_Handler> handler) : handler_(std::move(handler)) {}

    void begin();
    /** True once the handler has asked for the end; from then on it is not asked again. */
    [[nodiscard]] bool canceled();
    /** Whether it has, without asking. */
    [[nodiscard]] bool was_canceled() const { return canceled_; }
    /** Some content of the entry in hand was done. */
    void add_bytes(std::string const& path, uint64_t bytes);
    void add_entry(std::string const& path);
    /** An entry was left out: a line at LM_WARNING, and an event. */
    void skipped(std::string const& path, Error_Code code, std::string const& text);
    /** An entry is not quite right: a line at LM_WARNING, and an event. */
    void warning(std::string const& path, std::string const& text);
    /** The work cannot go on: a line at LM_ERROR. @return code */
    Error_Code failed(Error_Code code, std::string const& text);
    void end(Error_Code code);

    uint64_t entries() const { return entries_; }
    uint64_t bytes() const { return bytes_; }
    uint64_t left_out() const { return left_out_; }

private:
    void notify(Event::Type type, Error_Code code, std::string const& path,
                std::string const& text);

    std::shared_ptr<Event_Handler> const handler_;
    bool canceled_ = false;
    uint64_t entries_ = 0;
    uint64_t bytes_ = 0;
    uint64_t told_bytes_ = 0;
    uint64_t left_out_ = 0;
};

} // namespace MTF

#endif
