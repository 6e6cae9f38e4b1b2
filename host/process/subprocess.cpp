#include "host/process/subprocess.h"

#include "host/process/text_process_handler.h"
#include "qmrt/log.h"

namespace {

class Output_Handler : public Text_Process_Handler {
public:
    explicit Output_Handler(std::string& output)
        : Text_Process_Handler(TPHF_LOG_CMD), output_(output) {
        output_.clear();
    }

    int handle_stdout_segment(char const* data, size_t size) override {
        size_t const room = subprocess::MAX_OUTPUT - output_.size();
        output_.append(data, std::min(size, room));
        is_cut_ = size > room;
        return is_cut_ ? -1 : 0;
    }

    bool is_cut() const { return is_cut_; }

private:
    std::string& output_;
    bool is_cut_ = false;
};

} // namespace

namespace {

int call_logged(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback,
                bool is_question) {
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR,
                           nullptr, std::move(callback));
    Text_Process_Handler handler(Text_Process_Handler::TPHF_LOG_CMD);
    if (!is_question)
        handler.unlimited();
    return handler.call(&process, options);
}

} // namespace

int subprocess::call(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback) {
    return call_logged(options, std::move(callback), true);
}

int subprocess::call_unlimited(ACE_Process_Options& options,
                               std::shared_ptr<ACE_Log_Msg_Callback> callback) {
    return call_logged(options, std::move(callback), false);
}

int subprocess::spawn_output(ACE_Process_Options& options, std::string& output, bool with_stderr) {
    unsigned int const flags =
        with_stderr ? ACE_Process_Ex::REDIRECT_STDOUT_STDERR
                    : ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR;
    ACE_Process_Ex process(flags, nullptr);
    Output_Handler handler(output);
    int const status = handler.call(&process, options);
    if (!handler.is_cut())
        return status;
    QMRT_LOG(LM_ERROR, "Failed to take the output of %s, it is longer than %Q bytes\n",
             process.label(), static_cast<uint64_t>(MAX_OUTPUT));
    errno = EFBIG;
    return -1;
}
