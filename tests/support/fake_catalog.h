#ifndef TESTS_SUPPORT_FAKE_CATALOG_H
#define TESTS_SUPPORT_FAKE_CATALOG_H

#include "host/catalog/catalog_backend.h"
#include "json_spirit/value.h"

#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/** A Catalog_Backend in memory, with failures on demand, for tests. */
class Fake_Catalog_Backend : public Catalog_Backend {
public:
    bool initialize(Catalog_Limits const& limits, Backup_Set const& set) override;
    bool complete(Catalog_Limits const& limits, Backup_Set const& set) override;
    bool commit(Catalog_Limits const& limits, Backup_Set const& set, bool overwrite) override;
    bool abort(Catalog_Limits const& limits, std::string const& uuid,
               json_spirit::Array& pieces) override;
    bool add_piece(Catalog_Limits const& limits, std::string const& uuid,
                   json_spirit::Array const& pieces) override;
    bool get_view(Catalog_Limits const& limits, std::string const& type, std::string const& view,
                  json_spirit::Object const& query, json_spirit::Value& result) override;

    /** From now on, or no more, that operation fails, with an error line: "complete"... */
    void fail(std::string const& operation, bool value = true);
    /** "initialize UUID", "abort UUID", "get_view catalogs"..., failed ones too. */
    std::vector<std::string> calls() const;
    /** The queries that came, in order. */
    std::vector<json_spirit::Object> queries() const;
    /** What the operator of the last call was made with. */
    Catalog_Limits limits() const;

    /** Puts a row in by hand, as a complete set of kind "gaussdb". It needs a "uuid". */
    void add_row(json_spirit::Object const& row);
    /** The row of a set; empty when there is none. */
    json_spirit::Object row(std::string const& uuid) const;
    bool is_open(std::string const& uuid) const;
    bool has(std::string const& uuid) const;
    /** The resource was restored then: "check_restored" leaves out sets that ended until then. */
    void restored(std::string const& resource_uuid, time_t when);

private:
    struct Record {
        std::string kind;
        json_spirit::Object row;
        bool open;
    };
    using Rows = std::vector<json_spirit::Object>;

    bool enter(Catalog_Limits const& limits, std::string const& operation, std::string const& rest);
    Record* find(std::string const& uuid);
    bool chosen(Record const& record, std::string const& type,
                json_spirit::Object const& query) const;
    bool after_restore(json_spirit::Object const& row) const;
    Rows catalogs(std::string const& type, json_spirit::Object const& query) const;
    Rows restore_chain(std::string const& type, json_spirit::Object const& query) const;
    static json_spirit::Array depends(Rows rows);

    mutable std::mutex mutex_;
    std::map<std::string, Record> sets_;
    std::map<std::string, time_t> restored_;
    std::set<std::string> failing_;
    std::vector<std::string> calls_;
    std::vector<json_spirit::Object> queries_;
    Catalog_Limits limits_ = {0, 0};
};

/** The same, as the one of Host_Services while it lives. */
class Fake_Catalog {
public:
    Fake_Catalog();
    ~Fake_Catalog();
    Fake_Catalog(Fake_Catalog const&) = delete;
    Fake_Catalog& operator=(Fake_Catalog const&) = delete;
    Fake_Catalog_Backend* operator->() const { return backend_.get(); }

private:
    std::shared_ptr<Fake_Catalog_Backend> backend_;
};

#endif
