#include "agent/jobs/definition_store.h"

#include "json_spirit/access.h"
#include "tests/unit/agent/jobs/jobs_fixture.h"

using json_spirit::Object;

namespace {

class Definition_Store_Test : public Jobs_Fixture {
protected:
    void SetUp() override {
        Jobs_Fixture::SetUp();
        store_ = std::make_unique<Definition_Store>(*database_);
    }
    Stored_Definition stored(std::string const& key) {
        Stored_Definition found;
        EXPECT_TRUE(store_->find(key, found)) << key;
        return found;
    }
    static std::string id_of(Object const& body) { return json_spirit::object_get_str(body, "id"); }

    std::unique_ptr<Definition_Store> store_;
};

TEST_F(Definition_Store_Test, a_definition_is_found_by_its_id_and_by_its_name) {
    Object const body = normal(backup("nightly", R"(,"enabled":false)"));
    ASSERT_TRUE(store_->save(body, 77));
    for (std::string const& key : {id_of(body), std::string("nightly")}) {
        Stored_Definition const found = stored(key);
        EXPECT_EQ(id_of(body), found.id);
        EXPECT_EQ("nightly", found.name);
        EXPECT_EQ("production", found.instance);
        EXPECT_FALSE(found.enabled);
        EXPECT_EQ(json_spirit::Value(body), json_spirit::Value(found.body));
        EXPECT_EQ(77, found.planned);
    }
}

TEST_F(Definition_Store_Test, an_id_in_capitals_is_the_same_id) {
    ASSERT_TRUE(
        store_->save(normal(backup("nightly", std::string(R"(,"id":")") + RESOURCE + "\"")), 1));
    EXPECT_EQ(RESOURCE, stored("6F9619FF-8B86-4011-B42D-00CF4FC9648F").id);
}

TEST_F(Definition_Store_Test, it_outlives_the_process) {
    ASSERT_TRUE(store_->save(normal(backup()), 1));
    store_.reset();
    reopen();
    store_ = std::make_unique<Definition_Store>(*database_);
    EXPECT_EQ("nightly", stored("nightly").name);
}

TEST_F(Definition_Store_Test, what_is_not_there_is_not_found) {
    Stored_Definition found;
    for (char const* key : {"", "nightly", "' OR 1=1 --", RESOURCE}) {
        Job_Answer const answer = store_->find(key, found);
        EXPECT_EQ(Job_Answer::NOT_FOUND, answer.kind);
        EXPECT_EQ(std::string("definition \"") + key + "\"", answer.text);
    }
}

TEST_F(Definition_Store_Test, a_name_belongs_to_one_definition) {
    Object const first = normal(backup());
    ASSERT_TRUE(store_->save(first, 1));
    Job_Answer const answer = store_->save(normal(backup()), 2);
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("\"nightly\""));
    EXPECT_EQ(id_of(first), stored("nightly").id);
    std::vector<Stored_Definition> all;
    ASSERT_TRUE(store_->list(all));
    EXPECT_EQ(1u, all.size());
}

TEST_F(Definition_Store_Test, a_definition_is_replaced_under_its_id) {
    Object body = normal(backup());
    ASSERT_TRUE(store_->save(body, 1));
    body["name"] = "weekly";
    ASSERT_TRUE(store_->save(body, 2));
    EXPECT_EQ("weekly", stored(id_of(body)).name);
    Stored_Definition gone;
    EXPECT_EQ(Job_Answer::NOT_FOUND, store_->find("nightly", gone).kind);
}

TEST_F(Definition_Store_Test, only_other_times_begin_anew) {
    Object body = normal(backup("nightly", R"(,"schedule":{"type":"hourly","at":"5"})"));
    ASSERT_TRUE(store_->save(body, 100));
    body["pre_action"] = "true";
    ASSERT_TRUE(store_->save(body, 200));
    EXPECT_EQ(100, stored("nightly").planned) << "a run that is due would be lost";
    body["schedule"] = json(R"({"type":"hourly","at":"6"})");
    ASSERT_TRUE(store_->save(body, 300));
    EXPECT_EQ(300, stored("nightly").planned);
    body["enabled"] = false;
    ASSERT_TRUE(store_->save(body, 400));
    EXPECT_EQ(400, stored("nightly").planned);
}

TEST_F(Definition_Store_Test, lists_by_name) {
    for (char const* name : {"c", "a", "b"})
        ASSERT_TRUE(store_->save(normal(backup(name)), 1));
    std::vector<Stored_Definition> all;
    ASSERT_TRUE(store_->list(all));
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ("a", all[0].name);
    EXPECT_EQ("c", all[2].name);
}

TEST_F(Definition_Store_Test, removes_by_id) {
    Object const body = normal(backup());
    ASSERT_TRUE(store_->save(body, 1));
    EXPECT_TRUE(store_->remove(id_of(body)));
    EXPECT_EQ(Job_Answer::NOT_FOUND, store_->remove(id_of(body)).kind);
}

TEST_F(Definition_Store_Test, keeps_what_was_planned) {
    Object const body = normal(backup());
    ASSERT_TRUE(store_->save(body, 1));
    EXPECT_TRUE(store_->set_planned(id_of(body), 500));
    EXPECT_EQ(500, stored("nightly").planned);
    EXPECT_TRUE(store_->set_planned(RESOURCE, 500)) << "it may be gone meanwhile";
}

TEST_F(Definition_Store_Test, a_database_that_fails_is_told_once) {
    database_->change("drop", [](SQLite::Database& database) {
        database.exec("DROP TABLE job_definitions");
        return true;
    });
    Stored_Definition found;
    EXPECT_EQ(Job_Answer::FAILED, store_->save(normal(backup()), 1).kind);
    EXPECT_LOGGED(LM_ERROR, "could not save a definition");
    EXPECT_EQ(Job_Answer::FAILED, store_->find("x", found).kind);
    EXPECT_LOGGED(LM_ERROR, "could not find a definition");
    EXPECT_EQ(Job_Answer::FAILED, store_->remove("x").kind);
    EXPECT_LOGGED(LM_ERROR, "could not remove a definition");
}

TEST_F(Definition_Store_Test, a_damaged_definition_is_told_and_no_crash) {
    ASSERT_TRUE(store_->save(normal(backup()), 1));
    database_->change("damage", [](SQLite::Database& database) {
        database.exec("UPDATE job_definitions SET body = '{'");
        return true;
    });
    Stored_Definition found;
    EXPECT_EQ(Job_Answer::FAILED, store_->find("nightly", found).kind);
    EXPECT_LOGGED(LM_ERROR, "is damaged");
}

} // namespace
