#ifndef TESTS_SUPPORT_FAKE_INSTANCES_H
#define TESTS_SUPPORT_FAKE_INSTANCES_H

#include "host/agent/instance_backend.h"

#include <map>
#include <mutex>
#include <set>

/** An Instance_Backend in memory, with failures on demand, for tests. */
class Fake_Instance_Backend : public Instance_Backend {
public:
    std::shared_ptr<Instance> find(std::string const& type, std::string const& name) override;
    std::vector<std::shared_ptr<Instance>> list(std::string const& type) override;
    bool put(Instance const& instance) override;
    bool erase(std::string const& type, std::string const& name) override;
    bool save_account(std::string const& type, std::string const& name, std::string const& uid,
                      json_spirit::Object const& account) override;
    bool get_account(std::string const& type, std::string const& name, std::string const& uid,
                     json_spirit::Object& account) override;
    bool tell_server(Change change, Instance const& instance) override;

    /** From now on, or no more, that operation fails, with an error line: "put", "find"... */
    void fail(std::string const& operation, bool value = true);
    /** "put a", "erase a", "save_account a uid", "tell_server updated a"..., failed ones too. */
    std::vector<std::string> calls() const;
    /** What the server was told last of an instance; null when nothing. */
    std::shared_ptr<Instance> told(std::string const& name) const;

private:
    using Key = std::pair<std::string, std::string>;
    struct Record {
        Instance instance;
        std::map<std::string, json_spirit::Object> accounts;
    };
    bool enter(std::string const& operation, std::string const& rest);
    static std::shared_ptr<Instance> copy_of(Record const& record);

    mutable std::mutex mutex_;
    std::map<Key, Record> records_;
    std::map<std::string, Instance> told_;
    std::set<std::string> failing_;
    std::vector<std::string> calls_;
};

/** The same, as the one of Host_Services while it lives. */
class Fake_Instances {
public:
    Fake_Instances();
    ~Fake_Instances();
    Fake_Instances(Fake_Instances const&) = delete;
    Fake_Instances& operator=(Fake_Instances const&) = delete;
    Fake_Instance_Backend* operator->() const { return backend_.get(); }

private:
    std::shared_ptr<Fake_Instance_Backend> backend_;
};

#endif
