#include "gaussdb/job/client_io_options.h"

#include "host/agent/host_manager.h"
#include "host/job/job_definition.h"

#include <algorithm>

void set_options_by_job_def(Client_IO_Base::Options& opts, Job_Definition const& def,
                            unsigned long channels) {
    // -1 stands for the client's own default
    opts.max_seconds_retry = static_cast<uint64_t>(std::max(def.max_seconds_retry(), 0));
    opts.resumption_buffer_size = def.resumption_buffer_size();
    if (Rate_Limits const* const limits = def.rate_limits().get())
        opts.rate_limits = *limits;
    opts.rate_limits.set_rate_limits_by_channels(channels);
}

void set_options_by_host(Client_IO_Base::Options& opts) {
    Host_Manager* const host = Host_Manager::instance();
    set_access_key_to_options(opts,
                              host->on_backupd() ? host->node_access_key() : host->access_key());
}
