#ifndef TESTS_UNIT_HOST_MTF_MTF_FIXTURE_H
#define TESTS_UNIT_HOST_MTF_MTF_FIXTURE_H

#include "host/mtf/archive_path.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_restore.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_archive_store.h"
#include "tests/support/temporary_directory.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

/** Remembers all events, and does what a test wants when one comes. */
class Recording_Handler : public MTF::Event_Handler {
public:
    using Event_Handler::Event_Handler;

    bool canceling() override { return ++asked >= cancel_at; }
    void notify_event(MTF::Event const& event) override {
        events.push_back(event);
        if (on_event)
            on_event(event);
    }
    size_t count(MTF::Event::Type type) const {
        size_t result = 0;
        for (MTF::Event const& event : events)
            result += event.type == type;
        return result;
    }

    int asked = 0;
    int cancel_at = INT32_MAX; ///< which question is answered with yes, from 1
    std::vector<MTF::Event> events;
    std::function<void(MTF::Event const&)> on_event;
};

/** A tree to back up, a place to restore to, and a store in memory. */
class MTF_Fixture : public testing::Test {
protected:
    static constexpr char MINOR[] = "5be3a4ea-0000-5000-8000-000000000001";
    static constexpr char HOST[] = "7f3b5c1a-0000-4000-8000-000000000002";

    std::string source(std::string const& name) const { return tree_.path(name); }
    std::string restored(std::string const& name) const { return target_.path() + source(name); }
    std::string read_restored(std::string const& name) const {
        return target_.read(source(name).substr(1));
    }
    std::string archive(int64_t seq) const {
        return MTF::mtf_path(MTF::default_uri(HOST, MINOR), MINOR, seq, 0);
    }
    std::string catalogue(int64_t seq) const {
        return MTF::cat_path(MTF::default_uri(HOST, MINOR), MINOR, seq, 0);
    }

    /** A backup, with number @a seq, of the whole tree. */
    std::unique_ptr<MTF_Backup> make_backup(int64_t seq, bool incremental = false) {
        MTF::Metadata metadata;
        metadata.host("db1");
        metadata.uuid("set-1");
        auto backup = std::make_unique<MTF_Backup>(handler_, metadata, nullptr);
        backup->host_uuid(HOST);
        backup->minor_resource_id(MINOR);
        backup->seq(seq - 1);
        backup->incremental(incremental);
        backup->store(store_);
        // later than any file time, so that what a test has just written counts as settled
        backup->clock([] { return int64_t(4000000000) * 1000000000; });
        backup->add_source(tree_.path());
        return backup;
    }
    std::unique_ptr<MTF_Restore> make_restore(int64_t seq) {
        auto restore = std::make_unique<MTF_Restore>(handler_, nullptr);
        restore->backup_host_uuid(HOST);
        restore->backup_minor_resource_id(MINOR);
        restore->target_location(target_.path());
        restore->seq(seq);
        restore->store(store_);
        return restore;
    }
    bool back_up(int64_t seq = 1, bool incremental = false) {
        return make_backup(seq, incremental)->backup("");
    }
    bool restore(int64_t seq = 1) { return make_restore(seq)->restore(""); }

    static struct stat stat_of(std::string const& path) {
        struct stat status = {};
        EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
        return status;
    }

    Temporary_Directory tree_;
    Temporary_Directory target_;
    std::shared_ptr<Memory_Archive_Store> store_ = std::make_shared<Memory_Archive_Store>();
    std::shared_ptr<Recording_Handler> handler_ =
        std::make_shared<Recording_Handler>(MTF::PROGRESS_REPORT_BYTES);
};

#endif
