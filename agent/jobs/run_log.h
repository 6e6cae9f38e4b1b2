#ifndef AGENT_JOBS_RUN_LOG_H
#define AGENT_JOBS_RUN_LOG_H

#include "qmrt/file.h"

#include <ace/Log_Msg_Callback.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/**
 * The log file of one run: what its threads log, each line as
 *
 *     2026-11-22T02:30:00Z INFO backup_tool: Backup is complete
 *
 * with the time in UTC. A text of several lines goes on in the file as it is. The file does not
 * grow beyond its limit: its last line says then that the rest is cut. When it cannot be written,
 * the run goes on without it and the agent's own log is told once. Any thread may log.
 */
class Run_Log : public ACE_Log_Msg_Callback {
public:
    /** @param file  open for appending; not open: nothing is written, and nobody is told */
    Run_Log(File_Descriptor file, std::string path, uint64_t limit);

    void log(ACE_Log_Record& record) override;

    /**
     * Why the run failed, as far as its lines tell: the last warning or error, with the one that
     * came directly before it behind a colon, each by its last line. "" when there was none.
     */
    std::string reason();

    /** A line of the log that stands for an alert; see find_alert_of_line(). */
    struct Alert_Line {
        unsigned long level;
        unsigned long code;
        std::string text;
    };
    /** The first line of each alert, in the order of the log. */
    std::vector<Alert_Line> alert_lines();

private:
    void remember(ACE_Log_Record const& record);
    /** @return false when it could not be written, with errno */
    [[nodiscard]] bool append(std::string const& line);

    std::mutex mutex_;
    File_Descriptor file_;
    std::string const path_;
    uint64_t const limit_;
    uint64_t size_ = 0;
    std::string reason_;
    std::vector<Alert_Line> alert_lines_;
    std::string complaint_; ///< the last record, if it was a warning or an error
};

/** A piece of a run's log. */
struct Run_Log_Piece {
    std::string text;         ///< ends with a whole line or, in a very long one, a whole character
    uint64_t offset = 0;      ///< in bytes, where the text begins
    uint64_t next_offset = 0; ///< where to go on reading
};

/** The directory of the log files: `<run id>.log`, readable by the agent's user alone. */
class Run_Logs {
public:
    /** Bytes of one log, its last line not counted. */
    static constexpr uint64_t DEFAULT_LIMIT = 16 * 1024 * 1024;
    /** Bytes that read() gives at most. */
    static constexpr uint64_t MAX_PIECE = 1024 * 1024;

    /** Makes the directory with mode 0700 when it is first needed. */
    explicit Run_Logs(std::string directory, uint64_t limit = DEFAULT_LIMIT);

    /**
     * The log of a run, the same one for all who hold it. Never null: when the file cannot be made,
     * an error line says so, and the lines go nowhere.
     */
    std::shared_ptr<Run_Log> open(std::string const& run_id);
    /**
     * Reads from @a offset on; a piece of 0 bytes is at the end. A log that is not there is empty.
     * @param limit  bytes; more than MAX_PIECE counts as that, less than 4 as 4
     * @return false, after an error line, when it cannot be read
     */
    [[nodiscard]] bool read(std::string const& run_id, uint64_t offset, uint64_t limit,
                            Run_Log_Piece& piece);
    /** Deletes a run's log, if there is one. */
    void remove(std::string const& run_id);
    /** Deletes the logs of all runs but these. */
    void keep_only(std::set<std::string> const& run_ids);

    std::string path_of(std::string const& run_id) const;

private:
    std::string const directory_;
    uint64_t const limit_;
    std::mutex mutex_;
    std::map<std::string, std::weak_ptr<Run_Log>> open_;
};

#endif
