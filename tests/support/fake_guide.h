#ifndef TESTS_SUPPORT_FAKE_GUIDE_H
#define TESTS_SUPPORT_FAKE_GUIDE_H

#include "host/agent/database_guide.h"

#include <functional>

/** A module's guide that says what the test gave it. */
class Fake_Guide : public Database_Guide {
public:
    std::vector<Database_Flavour> flavours() const override { return known; }
    /** From the options "version" and "edition". */
    Identity identify(Instance const& instance) const override {
        Identity identity;
        instance.get_option("version", identity.flavour);
        instance.get_option("edition", identity.edition);
        return identity;
    }
    std::string fault_of_option(std::string const& key, std::string const& value) const override {
        return value.find("hostile") == std::string::npos ? "" : "is not a plain " + key;
    }
    std::vector<Instance_Check> check(Instance const& instance, Check_Scope scope) override {
        looked_at.push_back(instance);
        return on_check ? on_check(instance, scope) : std::vector<Instance_Check>();
    }
    Backup_Outlook outlook(Instance const& instance, std::string const& pool,
                           std::string const& level,
                           json_spirit::Array const& usable) const override {
        return {"", "",
                instance.name + " " + pool + " " + level + " " + std::to_string(usable.size())};
    }
    std::vector<std::pair<std::string, std::string>>
    contents(json_spirit::Object const& set) const override {
        return {{"Holds", json_spirit::object_get_str(set, "uuid")}};
    }
    Loss restore_loss(json_spirit::Object const&, std::string const& target,
                      std::vector<std::string> const& tables) const override {
        return {"to " + target, std::to_string(tables.size()) + " tables", {{"Table", "t"}}};
    }
    Loss backup_loss(json_spirit::Object const&, json_spirit::Array const& others) const override {
        return {"", "", {{"Others", std::to_string(others.size())}}};
    }
    Loss instance_loss(Instance const& instance) const override { return {"", instance.name, {}}; }

    std::vector<Database_Flavour> known;
    std::function<std::vector<Instance_Check>(Instance const&, Check_Scope)> on_check;
    std::vector<Instance> looked_at;
};

#endif
