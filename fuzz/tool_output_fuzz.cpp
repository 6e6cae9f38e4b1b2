#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_gsql_client.h"
#include "gaussdb/common/gaussdb_zsql_client.h"

#include <cstdlib>

namespace {

/** What every parser of a tool's output makes of it. */
class Parsers {
public:
    void feed(std::string const& line) {
        for (Text_Process_Handler* const handler :
             {static_cast<Text_Process_Handler*>(&om_), static_cast<Text_Process_Handler*>(&check_),
              static_cast<Text_Process_Handler*>(&last_), static_cast<Text_Process_Handler*>(&guc_),
              static_cast<Text_Process_Handler*>(&count_),
              static_cast<Text_Process_Handler*>(&gsql_),
              static_cast<Text_Process_Handler*>(&zsql_)})
            handler->handle_stdout_line(line.c_str(), line.size());
        (void)version_.parse(line);
    }

    /** Nothing comes out that is not a part of what went in. */
    void check(std::string_view input, size_t lines) const {
        if (input.find(state_) == std::string_view::npos ||
            input.find(text_) == std::string_view::npos)
            std::abort();
        if (rows_.size() > lines || zsql_rows_.size() > lines)
            std::abort();
        for (auto const* const rows : {&rows_, &zsql_rows_})
            for (std::string const& row : *rows)
                if (input.find(row) == std::string_view::npos)
                    std::abort();
    }

private:
    std::string state_, text_, error_;
    bool balanced_ = false;
    GaussDB_Version version_{GAUSSDB_UNKNOWN, 0, 0, 0};
    GaussDB_Version checked_{GAUSSDB_UNKNOWN, 0, 0, 0};
    uint16_t port_ = 0;
    int32_t nodes_ = 0;
    std::vector<std::string> rows_, zsql_rows_;
    GS_OM_Line_Handler om_{state_, balanced_};
    GS_CHECK_Line_Handler check_{checked_};
    Normal_Line_Handler last_{text_};
    GS_GUC_Line_Handler guc_{port_};
    Node_Count_Line_Handler count_{nodes_};
    Gsql_Query_Line_Handler gsql_{rows_, nullptr, Text_Process_Handler::TPHF_LOG_NONE};
    Zsql_Query_Line_Handler zsql_{zsql_rows_, nullptr, &error_,
                                  Text_Process_Handler::TPHF_LOG_NONE};
};

} // namespace

/** Whatever the database's tools print is read line by line to its end. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    Parsers parsers;
    size_t lines = 0;
    for (size_t begin = 0; begin < size; ++lines) {
        size_t const end = std::min(input.find('\n', begin), size);
        parsers.feed(std::string(input.substr(begin, end - begin)));
        begin = end + 1;
    }
    parsers.check(input, lines);
    return 0;
}
