#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/job_manager.h"
#include "agent/jobs/member_reader.h"
#include "agent/jobs/scheduler.h"
#include "agent/service/agent_methods.h"
#include "json_spirit/access.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

class Job_Methods {
public:
    Job_Methods(Job_Manager& manager, Agent_Jobs& runs, Scheduler& scheduler)
        : manager_(manager), runs_(runs), scheduler_(scheduler) {}

    bool list_definitions(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        if (!Member_Reader(call.params.get_obj(), "", error).finish())
            return invalid_params(error, fault);
        std::vector<Described_Definition> definitions;
        if (!answer(manager_.list(definitions), fault))
            return false;
        Array array;
        for (Described_Definition const& definition : definitions)
            array.emplace_back(describe(definition));
        result = Object{{"definitions", std::move(array)}};
        return true;
    }
    bool save_definition(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string id;
        if (!answer(manager_.save(call.params.get_obj(), id), fault))
            return false;
        scheduler_.wake();
        result = Object{{"id", id}};
        return true;
    }
    bool show_definition(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string name;
        Described_Definition definition;
        if (!only_name(call, "definition", names::fault_of_label, name, fault) ||
            !answer(manager_.show(name, definition), fault))
            return false;
        result = describe(definition);
        return true;
    }
    bool remove_definition(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string name;
        if (!only_name(call, "definition", names::fault_of_label, name, fault) ||
            !answer(manager_.remove(name), fault))
            return false;
        scheduler_.wake();
        result = Object();
        return true;
    }

    bool start(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, name, level, run_id, definition_id;
        Object const* run = nullptr;
        bool keep = true;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.text("definition", name, names::fault_of_label);
        reader.text("level", level, names::fault_of_id);
        reader.object("run", run);
        reader.flag("keep", keep);
        if (run && !level.empty())
            reader.blame("level", "give it as run.subtype");
        if (!run && !keep)
            reader.blame("keep", "only for \"run\"");
        if (error.empty() && name.empty() == !run)
            reader.blame("definition", "wanted this or \"run\"");
        if (!reader.finish())
            return invalid_params(error, fault);
        auto const started = [&] {
            if (!run)
                return manager_.start(name, run_id, definition_id, level);
            return keep ? manager_.start_new(*run, run_id, definition_id)
                        : manager_.start_once(*run, run_id, definition_id);
        };
        if (!answer(started(), fault))
            return false;
        scheduler_.wake();
        result = Object{{"run_id", run_id}, {"definition", definition_id}};
        return true;
    }

    bool list_runs(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        Run_Query query;
        int64_t limit = static_cast<int64_t>(query.limit);
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.text("definition", query.definition, names::fault_of_label);
        reader.text("instance", query.instance, names::fault_of_label);
        reader.text("state", query.state, names::fault_of_id);
        reader.number("limit", 0, Run_Query::MAX_LIMIT, limit);
        if (!reader.finish())
            return invalid_params(error, fault);
        query.limit = static_cast<size_t>(limit);
        std::vector<Job_Run> runs;
        if (!answer(runs_.list(query, runs), fault))
            return false;
        Array array;
        for (Job_Run const& run : runs)
            array.emplace_back(run_to_json(run));
        result = Object{{"jobs", std::move(array)}};
        return true;
    }
    bool show_run(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string beginning;
        Object run;
        if (!only_name(call, "job", names::fault_of_id, beginning, fault) ||
            !describe_run(runs_, beginning, run, fault))
            return false;
        result = std::move(run);
        return true;
    }
    bool read_log(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, beginning;
        int64_t offset = 0, limit = 64 * 1024;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("job", beginning, names::fault_of_id);
        reader.number("offset", 0, INT64_MAX, offset);
        reader.number("limit", 1, INT64_MAX, limit);
        if (!reader.finish())
            return invalid_params(error, fault);
        Job_Run run;
        Run_Log_Piece piece;
        // the state before the text, so that the text of a run that is over is all there is
        if (!answer(runs_.find(beginning, run), fault) ||
            !answer(runs_.read_log(run.run_id, static_cast<uint64_t>(offset),
                                   static_cast<uint64_t>(limit), piece),
                    fault))
            return false;
        result = Object{{"text", piece.text},
                        {"offset", piece.offset},
                        {"next_offset", piece.next_offset},
                        {"finished", run.end_time != 0 && piece.text.empty()}};
        return true;
    }

    bool cancel(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, run;
        bool now = false;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("job", run, names::fault_of_id);
        reader.flag("now", now);
        if (!reader.finish())
            return invalid_params(error, fault);
        if (!answer(manager_.cancel(run, now), fault))
            return false;
        result = Object();
        return true;
    }

    /** A request to a run: job.stop and so on. */
    Agent_Method request(Job_Answer (Job_Manager::*what)(std::string const&)) {
        return [this, what](Method_Call const& call, Value& result, Method_Fault& fault) {
            std::string run;
            if (!only_name(call, "job", names::fault_of_id, run, fault) ||
                !answer((manager_.*what)(run), fault))
                return false;
            result = Object();
            return true;
        };
    }

private:
    Object describe(Described_Definition const& definition) {
        return described_to_json(definition, scheduler_.next_run(definition));
    }
    Job_Manager& manager_;
    Agent_Jobs& runs_;
    Scheduler& scheduler_;
};

} // namespace

bool describe_run(Agent_Jobs& runs, std::string const& beginning, Object& result,
                  Method_Fault& fault) {
    Job_Run run;
    std::vector<Run_Alert> alerts;
    if (!answer(runs.find(beginning, run), fault) ||
        !answer(runs.alerts(run.run_id, alerts), fault))
        return false;
    result = run_to_json(run);
    Array array;
    for (Run_Alert const& alert : alerts)
        array.emplace_back(alert_to_json(alert, run));
    result["alert_list"] = std::move(array);
    result["revision"] = run.revision;
    return true;
}

void add_job_methods(Method_Table& methods, Job_Manager& manager, Agent_Jobs& runs,
                     Scheduler& scheduler) {
    auto const jobs = std::make_shared<Job_Methods>(manager, runs, scheduler);
    add_member_methods<Job_Methods>(methods, jobs,
                                    {{"definition.list", &Job_Methods::list_definitions},
                                     {"definition.save", &Job_Methods::save_definition},
                                     {"definition.show", &Job_Methods::show_definition},
                                     {"definition.remove", &Job_Methods::remove_definition},
                                     {"job.start", &Job_Methods::start},
                                     {"job.cancel", &Job_Methods::cancel},
                                     {"job.list", &Job_Methods::list_runs},
                                     {"job.show", &Job_Methods::show_run},
                                     {"job.log", &Job_Methods::read_log}});
    using Request = Job_Answer (Job_Manager::*)(std::string const&);
    for (auto const& [name, what] :
         {std::pair<char const*, Request>{"job.stop", &Job_Manager::stop},
          {"job.pause", &Job_Manager::pause},
          {"job.resume", &Job_Manager::resume}})
        methods.add(name, [jobs, request = jobs->request(what)](
                              Method_Call const& call, Value& result, Method_Fault& fault) {
            return request(call, result, fault);
        });
}
