#include "agent/jobs/run_log.h"

#include "host/job/job_alert.h"
#include "qmrt/log.h"
#include "qmrt/path.h"
#include "qmrt/posix_time.h"
#include "qmrt/utf8.h"

#include <ace/Log_Record.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::string_view SUFFIX = ".log";

/** "INFO" of LM_INFO. */
char const* priority_name(ACE_UINT32 type) {
    char const* const name = ACE_Log_Record::priority_name(static_cast<ACE_Log_Priority>(type));
    return std::strncmp(name, "LM_", 3) == 0 ? name + 3 : name;
}

std::string line_of(ACE_Log_Record& record) {
    std::string line = POSIX_Time_To_ISO8601(record.time_stamp().sec());
    line += ' ';
    line += priority_name(record.type());
    line += ' ';
    line += record.msg_data();
    if (line.back() != '\n')
        line += '\n';
    return line;
}

/** The last line of a text that is not empty. */
std::string last_line(std::string_view text) {
    constexpr size_t MOST = 500;
    size_t const end = text.find_last_not_of(" \n");
    text = text.substr(0, end == std::string_view::npos ? 0 : end + 1);
    return qmrt::to_one_line(std::string(text.substr(text.rfind('\n') + 1)).substr(0, MOST));
}

/** Cuts a text that goes on behind its last whole line, or at least its last whole character. */
void cut_at_a_border(std::string& text) {
    size_t const line_end = text.rfind('\n');
    if (line_end != std::string::npos) {
        text.resize(line_end + 1);
        return;
    }
    size_t begin = text.size();
    // bytes that go on with a character of UTF-8, of which one has three at most
    for (int bytes = 0; bytes < 3 && begin > 1 && (text[begin - 1] & 0xc0) == 0x80; ++bytes)
        --begin;
    if (begin > 1 && (text[begin - 1] & 0xc0) == 0xc0)
        text.resize(begin - 1);
}

} // namespace

Run_Log::Run_Log(File_Descriptor file, std::string path, uint64_t limit)
    : file_(std::move(file)), path_(std::move(path)), limit_(limit) {
    struct stat status {};
    if (file_ && fstat(file_.get(), &status) == 0)
        size_ = static_cast<uint64_t>(status.st_size);
    if (size_ > limit_)
        file_.reset(); // cut already
}

void Run_Log::log(ACE_Log_Record& record) {
    std::string const line = line_of(record);
    int error = 0;
    {
        std::lock_guard const guard(mutex_);
        remember(record);
        if (!file_ || append(line))
            return;
        error = errno;
        file_.reset();
    }
    // comes back to this log, which is closed by now
    errno = error;
    QMRT_LOG(LM_ERROR, "Cannot write the job log %s any more: %m\n", path_.c_str());
}

void Run_Log::remember(ACE_Log_Record const& record) {
    std::string complaint;
    if (record.type() == LM_WARNING || record.type() >= LM_ERROR)
        complaint = last_line(record.msg_data());
    if (!complaint.empty())
        reason_ = complaint_.empty() ? complaint : complaint + ": " + complaint_;
    complaint_ = std::move(complaint);
    unsigned long level = 0;
    unsigned long code = 0;
    if (find_alert_of_line(record.msg_data(), level, code) &&
        std::ranges::none_of(alert_lines_, [&](Alert_Line const& one) {
            return one.level == level && one.code == code;
        }))
        alert_lines_.push_back({level, code, last_line(record.msg_data())});
}

std::vector<Run_Log::Alert_Line> Run_Log::alert_lines() {
    std::lock_guard const guard(mutex_);
    return alert_lines_;
}

std::string Run_Log::reason() {
    std::lock_guard const guard(mutex_);
    return reason_;
}

bool Run_Log::append(std::string const& line) {
    bool const fits = size_ + line.size() <= limit_;
    std::string const last =
        "The rest of the log is cut: it is longer than " + std::to_string(limit_) + " bytes\n";
    std::string const& text = fits ? line : last;
    if (write_all(file_.get(), text.data(), text.size()) == -1)
        return false;
    size_ += text.size();
    if (!fits)
        file_.reset();
    return true;
}

Run_Logs::Run_Logs(std::string directory, uint64_t limit)
    : directory_(std::move(directory)), limit_(limit) {}

std::string Run_Logs::path_of(std::string const& run_id) const {
    return directory_ + "/" + run_id + std::string(SUFFIX);
}

std::shared_ptr<Run_Log> Run_Logs::open(std::string const& run_id) {
    std::string const path = path_of(run_id);
    int error = 0;
    std::shared_ptr<Run_Log> log;
    {
        std::lock_guard const guard(mutex_);
        std::erase_if(open_, [](auto const& entry) { return entry.second.expired(); });
        log = open_[run_id].lock();
        if (log)
            return log;
        int fd = -1;
        if (mkdir_p(directory_.c_str(), 0700) == 0)
            fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd == -1)
            error = errno;
        log = std::make_shared<Run_Log>(File_Descriptor(fd), path, limit_);
        open_[run_id] = log;
    }
    if (error) {
        errno = error;
        QMRT_LOG(LM_ERROR, "Cannot make the job log %s: %m\n", path.c_str());
    }
    return log;
}

bool Run_Logs::read(std::string const& run_id, uint64_t offset, uint64_t limit,
                    Run_Log_Piece& piece) {
    piece = {"", offset, offset};
    std::string const path = path_of(run_id);
    File_Descriptor const file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file && errno == ENOENT)
        return true;
    struct stat status {};
    if (!file || fstat(file.get(), &status) == -1) {
        QMRT_LOG(LM_ERROR, "Cannot read the job log %s: %m\n", path.c_str());
        return false;
    }
    uint64_t const size = static_cast<uint64_t>(status.st_size);
    if (offset >= size)
        return true;
    // room for one whole character
    limit = std::clamp<uint64_t>(limit, 4, MAX_PIECE);
    std::string text(std::min(limit, size - offset), '\0');
    ssize_t const count = pread(file.get(), text.data(), text.size(), static_cast<off_t>(offset));
    if (count == -1) {
        QMRT_LOG(LM_ERROR, "Cannot read the job log %s: %m\n", path.c_str());
        return false;
    }
    text.resize(static_cast<size_t>(count));
    // a line is written in one piece, but nobody promises that it is read in one
    cut_at_a_border(text);
    piece.next_offset = offset + text.size();
    piece.text = std::move(text);
    return true;
}

void Run_Logs::remove(std::string const& run_id) {
    std::string const path = path_of(run_id);
    if (unlink(path.c_str()) == -1 && errno != ENOENT)
        QMRT_LOG(LM_ERROR, "Cannot remove the job log %s: %m\n", path.c_str());
}

void Run_Logs::keep_only(std::set<std::string> const& run_ids) {
    std::vector<std::string> leftovers;
    {
        Directory_Reader reader(directory_.c_str());
        for (char const* name = reader ? reader.next() : nullptr; name; name = reader.next()) {
            std::string const run_id(name, std::max(strlen(name), SUFFIX.size()) - SUFFIX.size());
            if (name == run_id + std::string(SUFFIX) && !run_ids.count(run_id))
                leftovers.push_back(run_id);
        }
    }
    for (std::string const& run_id : leftovers)
        remove(run_id);
}
