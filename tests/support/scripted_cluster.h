#ifndef TESTS_SUPPORT_SCRIPTED_CLUSTER_H
#define TESTS_SUPPORT_SCRIPTED_CLUSTER_H

#include "gaussdb/common/gaussdb_cluster_manager.h"

#include <stdexcept>
#include <string>
#include <vector>

/** A client that answers every question with what the test gave it, and notes the questions. */
class Scripted_Client : public GaussDB_Client {
public:
    struct Answers {
        bool succeeds = true;
        std::vector<std::string> rows{};
        std::vector<std::string> asked{}; ///< statements, "logon", "databases"
    };
    Scripted_Client(GaussDB_Env const& env, Answers& answers)
        : GaussDB_Client(env, "", "", "", 0, "", ""), answers_(answers) {}

    bool list_database(std::vector<std::string>& databases) const override {
        return answer("databases", databases);
    }
    std::string get_version() const override { return ""; }
    bool test_logon() const override {
        std::vector<std::string> none;
        return answer("logon", none);
    }
    bool query(char const* cmd, std::vector<std::string>& result, bool) const override {
        return answer(cmd, result);
    }

private:
    bool answer(char const* question, std::vector<std::string>& rows) const {
        answers_.asked.push_back(question);
        rows.insert(rows.end(), answers_.rows.begin(), answers_.rows.end());
        return answers_.succeeds;
    }

    Answers& answers_;
};

/** A cluster whose tools are the test's: no process is started. */
class Scripted_Cluster : public GaussDB_Cluster_Handler {
public:
    explicit Scripted_Cluster(GaussDB_Version const& version = {GAUSSDB_200, 8, 1, 3},
                              GaussDB_Env const& env = {}, std::string const& user = "nobody")
        : GaussDB_Cluster_Handler(env, user, version) {}
    /** Enters one into the process's registry, which owns it. */
    static Scripted_Cluster* enter(char const* name,
                                   GaussDB_Version const& version = {GAUSSDB_200, 8, 1, 3}) {
        auto* const cluster = new Scripted_Cluster(version);
        if (!GaussDB_Cluster_Manager::instance()->add_cluster(name, cluster))
            throw std::runtime_error(name);
        return cluster;
    }

    bool init(char const*) override { return true; }
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override {
        accounts.push_back(std::string(username ? username : "(null)") + "/" +
                           (password ? password : "(null)") + "@" + (db ? db : "(null)"));
        if (!has_client)
            return nullptr;
        return std::make_unique<Scripted_Client>(env_, answers);
    }
    bool get_status(std::string& text, bool&) const override {
        text = status;
        return has_status;
    }

    bool has_client = true;
    bool has_status = true;
    std::string status = "Normal";
    mutable Scripted_Client::Answers answers;
    mutable std::vector<std::string> accounts; ///< "USER/PASSWORD@DATABASE" of each client
};

#endif
