#include "gaussdb/job/job_source_entry.h"

#include "host/http/uri.h"

std::vector<std::string> job_source_entry_segments(std::string const& entry) {
    URI uri;
    uri.path(entry, true);
    std::vector<std::string> segments;
    uri.path_segments(segments, true);
    return segments;
}
