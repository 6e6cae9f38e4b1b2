// What the module says of its databases, for the command.
#include "agent/jobs/member_reader.h"
#include "agent/service/agent_methods.h"
#include "host/agent/database_guide.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr std::chrono::seconds ANSWER_TIME{60};
constexpr int MOST_BACKUPS = 100000;

Array texts(std::vector<std::string> const& list) {
    return Array(list.begin(), list.end());
}

Array lines_json(std::vector<std::pair<std::string, std::string>> const& lines) {
    Array list;
    for (auto const& [label, text] : lines)
        list.emplace_back(Object{{"label", label}, {"text", text}});
    return list;
}

Object loss_json(Loss const& loss) {
    return {{"title", loss.title}, {"lost", loss.lost}, {"lines", lines_json(loss.lines)}};
}

Object flavour_json(Database_Flavour const& flavour) {
    return {{"version", flavour.code},
            {"name", flavour.name},
            {"title", flavour.title},
            {"access", flavour.access},
            {"levels", texts(flavour.levels)},
            {"parts", texts(flavour.parts)},
            {"restores", texts(flavour.restores)},
            {"backup_options", texts(flavour.backup_options)},
            {"restore_options", texts(flavour.restore_options)},
            {"usual_options", flavour.usual_options}};
}

/** Moves the member "tables" out of the parameters. @return false for anything but texts */
bool take_tables(Object& params, std::vector<std::string>& tables) {
    auto const given = params.find("tables");
    if (given == params.end())
        return true;
    if (given->second.type() != json_spirit::array_type)
        return false;
    for (Value const& table : given->second.get_array()) {
        if (table.type() != json_spirit::str_type || !names::fault_of_line(table.get_str()).empty())
            return false;
        tables.push_back(table.get_str());
    }
    params.erase(given);
    return true;
}

class Guide_Methods {
public:
    Guide_Methods(Method_Table& methods, std::shared_ptr<Database_Guide> guide)
        : methods_(methods), guide_(std::move(guide)) {}

    bool flavours(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        Member_Reader reader(call.params.get_obj(), "", error);
        if (!reader.finish())
            return invalid_params(error, fault);
        if (!guide_)
            return silent(fault);
        Array list;
        for (Database_Flavour const& flavour : guide_->flavours())
            list.emplace_back(flavour_json(flavour));
        result = Object{{"flavours", std::move(list)}};
        return true;
    }

    bool backup(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, backup, target;
        std::vector<std::string> tables;
        Object rest = call.params.get_obj();
        if (!take_tables(rest, tables))
            return invalid_params("tables: wanted an array of texts", fault);
        Member_Reader reader(rest, "", error);
        reader.required_text("backup", backup, names::fault_of_id);
        reader.text("instance", target, names::fault_of_label);
        if (!reader.finish())
            return invalid_params(error, fault);
        if (!guide_)
            return silent(fault);
        Object set;
        Array others;
        if (!ask("backup.show", {{"backup", backup}}, set, fault))
            return false;
        std::string const instance = json_spirit::object_get_str(set, "instance");
        Object list;
        if (!ask("backup.list", {{"instance", instance}, {"limit", MOST_BACKUPS}}, list, fault))
            return false;
        json_spirit::object_get(list, "backups", others);
        if (target.empty())
            target = instance;
        result = Object{{"contents", lines_json(guide_->contents(set))},
                        {"restore", loss_json(guide_->restore_loss(set, target, tables))},
                        {"removal", loss_json(guide_->backup_loss(set, others))}};
        return true;
    }

    bool instance(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, name, pool, level;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("instance", name, names::fault_of_label);
        reader.text("pool", pool, names::fault_of_label);
        reader.text("level", level, names::fault_of_id);
        if (level.empty() != pool.empty())
            reader.blame("level", "and \"pool\" belong together");
        if (!reader.finish())
            return invalid_params(error, fault);
        if (!guide_)
            return silent(fault);
        std::shared_ptr<Instance> const found =
            Instance_Manager::instance()->find("gaussdb", name.c_str());
        if (!found)
            return not_found("instance " + name, fault);
        Object answer{{"removal", loss_json(guide_->instance_loss(*found))}};
        if (!level.empty()) {
            Object list;
            Array usable;
            if (!ask("backup.list", {{"instance", name}, {"pool", pool}, {"usable", true}}, list,
                     fault))
                return false;
            json_spirit::object_get(list, "backups", usable);
            Backup_Outlook const outlook = guide_->outlook(*found, pool, level, usable);
            answer["outlook"] = Object{
                {"refusal", outlook.refusal}, {"advice", outlook.advice}, {"note", outlook.note}};
        }
        result = std::move(answer);
        return true;
    }

private:
    static bool silent(Method_Fault& fault) {
        return refused("the agent's module does not describe its databases; install the module "
                       "that belongs to this agent",
                       fault);
    }
    /** Asks a method of this table, which a member forwards to its backup server. */
    bool ask(char const* method, Object const& params, Object& answer, Method_Fault& fault) {
        JSON_RPC_Reply reply;
        if (!methods_.call(method, params, Rpc_Caller::local(), ANSWER_TIME, reply)) {
            fault = {reply.code, reply.message, reply.data};
            return false;
        }
        if (reply.result.type() == json_spirit::obj_type)
            answer = std::move(reply.result.get_obj());
        return true;
    }

    Method_Table& methods_;
    std::shared_ptr<Database_Guide> const guide_;
};

} // namespace

void add_guide_methods(Method_Table& methods, std::shared_ptr<Database_Guide> guide) {
    auto const served = std::make_shared<Guide_Methods>(methods, std::move(guide));
    add_member_methods<Guide_Methods>(methods, served,
                                      {{"guide.flavours", &Guide_Methods::flavours},
                                       {"guide.backup", &Guide_Methods::backup},
                                       {"guide.instance", &Guide_Methods::instance}});
}
