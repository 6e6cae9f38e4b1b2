#ifndef GAUSSDB_JOB_ROACH_LINE_HANDLER_H
#define GAUSSDB_JOB_ROACH_LINE_HANDLER_H

#include "host/process/text_process_handler.h"

#include <string>

class Roach_Progress_Handler;

/**
 * Reads what GaussRoach.py prints: logs every line, and picks out the backup's key and the
 * progress. The tool redraws its status line with control sequences, so a line that shows progress
 * begins with an escape; a plain line that looks like progress is only logged.
 *
 * What the tool prints never decides whether it succeeded; its exit status does.
 */
class Roach_Line_Handler : public Text_Process_Handler {
public:
    /**
     * Both may be null, and must outlive this object otherwise.
     * @param backup_key  gets the key of the last line that has one
     */
    Roach_Line_Handler(std::string* backup_key, Roach_Progress_Handler* handler);

    /** Always 0. */
    int handle_stdout_line(char const* line, size_t length) override;

    /** Logs a line at LM_INFO; one that begins with an escape without its control sequences. */
    void log_roach_line(char const* line, size_t length) const;

private:
    enum { ESC = 27 };

    void read_progress(std::string_view line);
    void read_backup_key(std::string_view line);

    std::string* backup_key_;
    Roach_Progress_Handler* handler_;
};

#endif
