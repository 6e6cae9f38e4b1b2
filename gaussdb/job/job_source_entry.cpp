#include "gaussdb/job/job_source_entry.h"

#include "host/http/uri.h"
#include "qmrt/names.h"

std::vector<std::string> job_source_entry_segments(std::string const& entry) {
    URI uri;
    uri.path(entry, true);
    std::vector<std::string> segments;
    uri.path_segments(segments, true);
    return segments;
}

std::string fault_of_job_source_entry(std::string_view entry) {
    if (std::string fault = names::fault_of_line(entry); !fault.empty())
        return fault;
    for (std::string const& segment : job_source_entry_segments(std::string(entry)))
        if (std::string fault = names::fault_of_line(segment); !fault.empty())
            return fault;
    return "";
}
