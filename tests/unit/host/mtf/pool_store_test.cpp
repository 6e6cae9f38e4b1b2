#include "host/mtf/pool_store.h"

#include "host/storage/pool_info.h"
#include "tests/support/file_pool.h"
#include "tests/support/scoped_env.h"
#include "tests/unit/host/mtf/mtf_fixture.h"

#include <fcntl.h>

using namespace MTF;

namespace {

class One_Pool : public Pool_Backend {
public:
    Storage_Result find(std::string const& uuid, Pool_Info& info) override {
        if (uuid != pool.uuid)
            return {Storage_Result::NOT_FOUND, "there is none"};
        info = pool;
        return {};
    }
    Pool_Info pool;
};

class Pool_Store_Test : public MTF_Fixture {
protected:
    void SetUp() override {
        pools_->pool.uuid = "p1";
        pools_->pool.url = pool_.url();
        pools_->pool.device_uuids = {"d1"};
        Host_Services::instance().pools(pools_);
    }
    void TearDown() override { Host_Services::instance().pools(nullptr); }

    std::unique_ptr<Pool_Store> connect() {
        return Pool_Store::connect("p1", "", false, {}, [this] { return go_on_; });
    }
    std::unique_ptr<MTF_Backup> make_pool_backup() {
        auto backup = make_backup(1);
        backup->store(nullptr);
        backup->pool_uuid("p1");
        backup->device_uuid("d1");
        return backup;
    }
    std::unique_ptr<MTF_Restore> make_pool_restore() {
        auto restore = make_restore(1);
        restore->store(nullptr);
        restore->pool_uuid("p1", true);
        return restore;
    }

    File_Pool pool_;
    std::shared_ptr<One_Pool> pools_ = std::make_shared<One_Pool>();
    bool go_on_ = true;
};

TEST_F(Pool_Store_Test, WhatIsWrittenIsReadBack) {
    auto const store = connect();
    ASSERT_TRUE(store);
    std::string const content = std::string(3000000, 'x') + "end";
    {
        auto const output = store->create("folder/object");
        ASSERT_TRUE(output);
        EXPECT_TRUE(output->write(content.data(), 1000));
        EXPECT_TRUE(output->write(content.data() + 1000, content.size() - 1000));
        EXPECT_EQ(Archive_Store::ABSENT, store->look("folder/object"));
        EXPECT_TRUE(output->commit());
    }
    EXPECT_EQ(content, pool_.stored("folder/object")) << "stored as it comes";
    EXPECT_EQ(Archive_Store::PRESENT, store->look("folder/object"));
    EXPECT_EQ(Archive_Store::ABSENT, store->look("folder"));
    auto presence = Archive_Store::UNKNOWN;
    auto const input = store->open("folder/object", presence);
    ASSERT_TRUE(input);
    EXPECT_EQ(Archive_Store::PRESENT, presence);
    std::string read;
    std::string buffer(777777, '\0');
    for (ssize_t size; (size = input->read(buffer.data(), buffer.size())) > 0;)
        read.append(buffer, 0, static_cast<size_t>(size));
    EXPECT_EQ(content, read);
    EXPECT_EQ(0, input->read(buffer.data(), buffer.size()));
    EXPECT_TRUE(store->remove("folder/object"));
    EXPECT_TRUE(store->remove("folder/object"));
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(Pool_Store_Test, AnObjectWithTheMarkOfACodecIsGivenAsItIs) {
    std::string const content("\x28\xb5\x2f\xfd and so on, longer than any mark could ever be ...");
    pool_.store("object", content);
    auto const store = connect();
    auto presence = Archive_Store::UNKNOWN;
    char buffer[200];
    auto const input = store->open("object", presence);
    ASSERT_TRUE(input);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), input->read(buffer, sizeof(buffer)));
}

TEST_F(Pool_Store_Test, WithoutCommitNothingStays) {
    auto const store = connect();
    store->create("object")->write("x", 1);
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(Pool_Store_Test, AnEmptyObjectIsWritten) {
    auto const store = connect();
    EXPECT_TRUE(store->create("object")->commit());
    EXPECT_TRUE(pool_.has("object"));
}

TEST_F(Pool_Store_Test, WhatIsNotThereIsAbsent) {
    auto const store = connect();
    auto presence = Archive_Store::UNKNOWN;
    EXPECT_FALSE(store->open("none", presence));
    EXPECT_EQ(Archive_Store::ABSENT, presence);
    EXPECT_FALSE(store->error().empty());
}

TEST_F(Pool_Store_Test, ABadNameIsRefused) {
    auto const store = connect();
    EXPECT_EQ(Archive_Store::UNKNOWN, store->look("../outside"));
    EXPECT_FALSE(store->remove("../outside"));
    EXPECT_FALSE(store->create("../outside")->commit());
    EXPECT_FALSE(store->error().empty());
}

TEST_F(Pool_Store_Test, CancelEndsATransferAndNothingAppears) {
    auto const store = connect();
    auto const output = store->create("object");
    std::string const content(5000000, 'x');
    ASSERT_TRUE(output->write(content.data(), content.size()));
    go_on_ = false;
    EXPECT_FALSE(output->commit());
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(Pool_Store_Test, WithoutASpaceForTheScratchFileNothingIsCreated) {
    auto const store = connect();
    Scoped_Env const env("TMPDIR", "/no/such/directory");
    EXPECT_FALSE(store->create("object"));
    EXPECT_EQ("no temporary file: No such file or directory", store->error());
}

TEST_F(Pool_Store_Test, APoolThatIsNotOnRecordIsAnError) {
    EXPECT_FALSE(Pool_Store::connect("p2", "", false, {}, [] { return true; }));
    EXPECT_LOGGED(LM_ERROR, "Pool p2 cannot be used");
    EXPECT_FALSE(Pool_Store::connect("p1", "d2", false, {}, [] { return true; }));
    EXPECT_LOGGED(LM_ERROR, "Pool p1 cannot be used, it is not on device d2");
}

TEST_F(Pool_Store_Test, AReadOnlyPoolWillDoForARestore) {
    pools_->pool.read_only = true;
    EXPECT_FALSE(connect());
    EXPECT_LOGGED(LM_ERROR, "Pool p1 cannot be used");
    EXPECT_TRUE(Pool_Store::connect("p1", "", true, {}, [] { return true; }));
}

TEST_F(Pool_Store_Test, APoolWhoseFolderIsNotThereIsAnError) {
    pools_->pool.url = "file:///no/such/pool";
    EXPECT_FALSE(connect());
    EXPECT_LOGGED(LM_ERROR, "Failed to connect file:///no/such/pool, ");
}

TEST_F(Pool_Store_Test, AnEncryptionThatCannotBeCarriedOutIsAnError) {
    pools_->pool.encryption = ENCRYPTION_AES_256; // and no initial vector
    pools_->pool.key = secure_string("secret-key");
    EXPECT_FALSE(connect());
    EXPECT_LOGGED(LM_ERROR, "Invalid encryption setting of pool p1\n");
    EXPECT_NOT_LOGGED("secret-key");
}

TEST_F(Pool_Store_Test, ABackupGoesToThePoolAndComesBack) {
    tree_.write("dir/file", std::string(2500000, 'f'));
    ASSERT_TRUE(make_pool_backup()->backup(""));
    EXPECT_TRUE(pool_.has(archive(1)));
    EXPECT_TRUE(pool_.has(catalogue(1)));
    EXPECT_EQ(2u, pool_.files());
    ASSERT_TRUE(make_pool_restore()->restore(""));
    EXPECT_EQ(std::string(2500000, 'f'), read_restored("dir/file"));
}

TEST_F(Pool_Store_Test, ABackupToAPoolThatIsNotThereFails) {
    tree_.write("file", "x");
    pools_->pool.uuid = "other";
    auto const backup = make_pool_backup();
    EXPECT_FALSE(backup->backup(""));
    EXPECT_EQ(E_GET_POOL_INFO, backup->error_code());
    EXPECT_LOGGED(LM_ERROR, "Pool p1 cannot be used");
    EXPECT_EQ(E_GET_POOL_INFO, handler_->events.back().code);
    auto const restore = make_pool_restore();
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_GET_POOL_INFO, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "Pool p1 cannot be used");
}

TEST_F(Pool_Store_Test, WithoutAPoolThereIsNoBackupAndNoRestore) {
    auto const backup = make_pool_backup();
    backup->pool_uuid("");
    EXPECT_FALSE(backup->backup(""));
    EXPECT_CHECK_LOGGED("pool_uuid_ is empty");
    auto const restore = make_pool_restore();
    restore->pool_uuid("", true);
    EXPECT_FALSE(restore->restore(""));
    EXPECT_CHECK_LOGGED("pool_uuid_ is empty");
}

TEST_F(Pool_Store_Test, CancelDuringTheUploadLeavesThePoolEmptyAndIsNoError) {
    std::string noise(5000000, '\0');
    for (char& c : noise)
        c = static_cast<char>(rand());
    tree_.write("file", noise);
    // how often is asked before the upload, and how often in all
    auto const whole = make_pool_backup();
    ASSERT_TRUE(whole->backup(""));
    int const in_all = handler_->asked;
    handler_ = std::make_shared<Recording_Handler>(PROGRESS_REPORT_NONE);
    ASSERT_TRUE(back_up());
    int const before = handler_->asked;
    ASSERT_GT(in_all, before + 2);
    for (int question = before; question <= in_all; ++question) {
        std::filesystem::remove_all(pool_.path() + "/" + HOST);
        handler_ = std::make_shared<Recording_Handler>(PROGRESS_REPORT_NONE);
        handler_->cancel_at = question;
        auto const backup = make_pool_backup();
        EXPECT_FALSE(backup->backup("")) << question;
        EXPECT_TRUE(backup->canceled());
        EXPECT_EQ(E_FAILED, backup->error_code());
        EXPECT_EQ(0u, pool_.files()) << question;
    }
}

} // namespace
