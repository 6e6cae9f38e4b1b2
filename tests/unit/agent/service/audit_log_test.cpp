#include "agent/service/audit_log.h"

#include "agent/database/agent_database.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

using json_spirit::Object;
using json_spirit::Value;

namespace {

class Audit_Log_Test : public testing::Test {
protected:
    static Method_Call call(std::string const& method, Object params, Rpc_Caller caller) {
        return {method, std::move(params), std::move(caller)};
    }
    static Rpc_Caller root() {
        Rpc_Caller caller = Rpc_Caller::local();
        caller.uid = 0;
        return caller;
    }
    std::vector<Audit_Entry> list(Audit_Query const& query = {}) {
        std::vector<Audit_Entry> entries;
        EXPECT_TRUE(audit_->list(query, entries));
        return entries;
    }
    Value answer_of(Object params, std::string& error) {
        Method_Table methods;
        add_audit_methods(methods, audit_);
        JSON_RPC_Reply reply;
        bool const done = methods.call("audit.list", std::move(params), Rpc_Caller::local(),
                                       std::chrono::seconds(10), reply);
        error = done ? "" : reply.message;
        return reply.result;
    }

    Temporary_Directory directory_;
    std::string why_;
    std::unique_ptr<Agent_Database> database_ =
        Agent_Database::open(directory_.path("agent.db"), {AUDIT_TABLES}, why_);
    std::shared_ptr<Audit_Log> audit_ = std::make_shared<Audit_Log>(*database_);
};

TEST_F(Audit_Log_Test, a_change_is_kept_with_who_where_and_how_it_ended) {
    time_t const before = time(nullptr);
    Rpc_Caller after_sudo = root();
    after_sudo.login = 61234; // without an entry
    Rpc_Caller remote = Rpc_Caller::admin();
    remote.address = "10.0.0.9";
    audit_->record(call("pool.update", {{"pool", "main"}}, after_sudo), 0, "");
    audit_->record(call("job.start", {{"definition", "nightly"}}, remote), -32005, "not now");
    std::vector<Audit_Entry> const entries = list();
    ASSERT_EQ(2u, entries.size());
    Audit_Entry const& first = entries[1];
    EXPECT_LE(before, first.time);
    EXPECT_EQ("root", first.user);
    EXPECT_EQ("0", first.uid);
    EXPECT_EQ("61234", first.login);
    EXPECT_EQ("", first.address);
    EXPECT_EQ("pool.update", first.method);
    EXPECT_EQ("main", first.subject);
    EXPECT_EQ(0, first.code);
    Audit_Entry const& second = entries[0];
    EXPECT_EQ("", second.user + second.uid + second.login);
    EXPECT_EQ("10.0.0.9", second.address);
    EXPECT_EQ("nightly", second.subject);
    EXPECT_EQ(-32005, second.code);
    EXPECT_EQ("not now", second.message);
    EXPECT_LOGGED(LM_INFO, "Audit: pool.update main by uid 0 after a login as 61234, done\n");
    EXPECT_LOGGED(LM_INFO, "Audit: job.start nightly by 10.0.0.9, not now\n");
}

TEST_F(Audit_Log_Test, what_changes_nothing_and_what_no_person_asks_for_is_not_kept) {
    audit_->record(call("pool.list", {}, root()), 0, "");
    audit_->record(call("no.such_method", {}, root()), -32601, "");
    audit_->record(call("pool.update", {}, Rpc_Caller::local()), 0, ""); // this process itself
    audit_->record(call("pool.update", {}, {Rpc_Caller::MEMBER, "m", "h1", nullptr}), 0, "");
    audit_->record(call("pool.update", {}, {Rpc_Caller::READER, {}, {}, nullptr, 1001}), 0, "");
    EXPECT_TRUE(list().empty());
}

TEST_F(Audit_Log_Test, passwords_are_not_kept_and_texts_are_one_short_line) {
    audit_->record(call("account.save",
                        {{"instance", "a\nb" + std::string(500, 'x')}, {"password", "s3cret"}},
                        root()),
                   -1, "wrong\n\x1b[31m" + std::string(5000, 'y'));
    std::vector<Audit_Entry> const entries = list();
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(entries[0].subject.starts_with("a?b")) << entries[0].subject;
    EXPECT_GT(300u, entries[0].subject.size());
    EXPECT_GT(300u, entries[0].message.size());
    EXPECT_EQ(std::string::npos, entries[0].message.find('\x1b'));
    database_.reset();
    for (char const* name : {"agent.db", "agent.db-wal"}) {
        std::ifstream file(directory_.path(name), std::ios::binary);
        std::string const bytes{std::istreambuf_iterator<char>(file), {}};
        EXPECT_EQ(std::string::npos, bytes.find("s3cret")) << name;
    }
    Log_Capture::instance().claim_all(LM_INFO, "Audit: account.save");
}

TEST_F(Audit_Log_Test, entries_are_found_by_user_subject_time_and_number) {
    Rpc_Caller other = root();
    other.uid = 61234;
    other.login = 61235;
    audit_->record(call("pool.create", {{"name", "main"}}, root()), 0, "");
    audit_->record(call("pool.remove", {{"pool", "main"}}, other), 0, "");
    audit_->record(call("pool.create", {{"name", "second"}}, root()), 0, "");
    EXPECT_EQ(3u, list().size());
    EXPECT_EQ("second", list({.limit = 1}).at(0).subject) << "the newest first";
    EXPECT_EQ(2u, list({.user = "root"}).size());
    EXPECT_EQ(2u, list({.user = "0"}).size());
    EXPECT_EQ(1u, list({.user = "61234"}).size());
    EXPECT_EQ(1u, list({.user = "61235"}).size()) << "before sudo";
    EXPECT_EQ(2u, list({.subject = "main"}).size());
    EXPECT_EQ(0u, list({.subject = "mai"}).size());
    EXPECT_EQ(0u, list({.since = time(nullptr) + 3600}).size());
    Log_Capture::instance().claim_all(LM_INFO, "Audit: ");
}

TEST_F(Audit_Log_Test, the_oldest_make_room) {
    audit_->record(call("pool.create", {{"name", "old"}}, root()), 0, "");
    ASSERT_TRUE(database_->change("age", [](SQLite::Database& database) {
        database.exec("INSERT INTO audit VALUES(100000, 1, '', '', '', '', 'm', 'middle', 0, '')");
        return true;
    }));
    EXPECT_EQ(2u, list().size());
    audit_->record(call("pool.create", {{"name", "new"}}, root()), 0, "");
    std::vector<Audit_Entry> const entries = list();
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ("new", entries[0].subject);
    EXPECT_EQ("middle", entries[1].subject);
    Log_Capture::instance().claim_all(LM_INFO, "Audit: ");
}

TEST_F(Audit_Log_Test, the_method_lists_them_and_refuses_what_it_does_not_know) {
    audit_->record(call("pool.create", {{"name", "main"}}, root()), -5, "no room");
    Log_Capture::instance().claim_all(LM_INFO, "Audit: ");
    std::string error;
    Value const answer = answer_of({{"subject", "main"}}, error);
    EXPECT_EQ("", error);
    Object const entry = answer.get_obj().at("changes").get_array().at(0).get_obj();
    EXPECT_EQ("no room", entry.at("outcome").get_str());
    EXPECT_EQ("root", entry.at("user").get_str());
    for (Object const& wrong : {Object{{"limit", 0}}, Object{{"limit", 100001}},
                                Object{{"since", -1}}, Object{{"users", "root"}}}) {
        answer_of(wrong, error);
        EXPECT_TRUE(error.starts_with("Invalid params: ")) << error;
    }
}

} // namespace
