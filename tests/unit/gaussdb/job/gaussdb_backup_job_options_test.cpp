#include "gaussdb/job/gaussdb_backup_job_options.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <gtest/gtest.h>

namespace {

using Options = GaussDB_Backup_Job_Options;

TEST(GaussDB_Backup_Job_Options, the_defaults) {
    auto const expected = std::make_tuple(COMPR_NONE, false, false, 0, 0, 0, 0, 0, 0, 0, 0,
                                          uint64_t{4294967296}, -1, 0u, "", "");
    EXPECT_EQ(expected, fields(Options()));
}

TEST(GaussDB_Backup_Job_Options, defaults_write_three_keys_since_no_compression_has_no_name) {
    Options options;
    EXPECT_EQ(R"({"compression_level":0,"filesplit_size":4294967296,"cbm_recycle_level":-1})",
              generated(options));
}

TEST(GaussDB_Backup_Job_Options, everything_is_written_in_this_order) {
    Options options;
    options.compression_ = COMPR_LZOP;
    options.mount_ = options.clean_meta_ = true;
    int value = 1;
    for (int* const field :
         {&options.compression_level_, &options.channels_, &options.max_memory_usage_,
          &options.buffer_size_, &options.buffer_block_size_})
        *field = value++;
    options.filesplit_size_ = 6;
    options.roach_compression_type_ = 7;
    options.roach_compression_level_ = 8;
    options.cpu_cores_ = 9;
    options.cache_dir_ = "/c";
    options.master_timeout_ = 10;
    options.cbm_recycle_level_ = 11;
    options.logging_level_ = "DEBUG";
    EXPECT_EQ(R"({"compression":"lzop","compression_level":1,"mount":true,"clean_meta":true,)"
              R"("channels":2,"max_memory_usage":3,"buffer_size":4,"buffer_block_size":5,)"
              R"("filesplit_size":6,"roach_compression_type":7,"roach_compression_level":8,)"
              R"("cpu_cores":9,"cache_dir":"/c","master_timeout":10,"cbm_recycle_level":11,)"
              R"("logging_level":"DEBUG"})",
              generated(options));
}

TEST(GaussDB_Backup_Job_Options, what_is_zero_false_or_empty_is_left_out) {
    Options options;
    options.filesplit_size_ = 0;
    options.cbm_recycle_level_ = 0;
    EXPECT_EQ(R"({"compression_level":0})", generated(options));
}

TEST(GaussDB_Backup_Job_Options, negative_numbers_are_written) {
    Options options;
    options.channels_ = -4;
    options.filesplit_size_ = UINT64_MAX;
    options.master_timeout_ = UINT_MAX;
    EXPECT_EQ(R"({"compression_level":0,"channels":-4,"filesplit_size":18446744073709551615,)"
              R"("master_timeout":4294967295,"cbm_recycle_level":-1})",
              generated(options));
}

TEST(GaussDB_Backup_Job_Options, each_method_is_written_by_its_name) {
    std::pair<Compression_Method, char const*> const methods[] = {
        {COMPR_AUTO, "auto"}, {COMPR_LZOP, "lzop"}, {COMPR_ZSTD, "zstd"}};
    for (auto const& [method, name] : methods) {
        Options options;
        options.compression_ = method;
        EXPECT_EQ(0u, generated(options).find("{\"compression\":\"" + std::string(name) + "\","));
    }
}

TEST(GaussDB_Backup_Job_Options, a_null_generator_is_refused) {
    EXPECT_EQ(-1, Options().generate(nullptr));
    EXPECT_CHECK_LOGGED("generator is NULL");
}

TEST(GaussDB_Backup_Job_Options, a_generator_that_takes_no_more_gives_a_failure) {
    YAJL_Gen gen;
    Options options;
    EXPECT_EQ(0, options.generate(gen.get()));
    EXPECT_EQ(-1, options.generate(gen.get())); // its one value is written
}

TEST(GaussDB_Backup_Job_Options, may_be_written_as_a_part_of_something_larger) {
    YAJL_Gen gen;
    {
        YAJL_Map_Guard const map(gen);
        gen << "options";
        EXPECT_EQ(0, Options().generate(gen.get()));
    }
    EXPECT_EQ(R"({"options":{"compression_level":0,"filesplit_size":4294967296,)"
              R"("cbm_recycle_level":-1}})",
              gen.text());
}

TEST(GaussDB_Backup_Job_Options, what_is_generated_parses_to_the_same) {
    Random_Definitions random(1);
    for (int round = 0; round < 5000; ++round) {
        Options options = random.backup_options();
        Parse<Backup_Options> const parsed(generated(options));
        ASSERT_TRUE(parsed.ok) << generated(options) << parsed.error();
        // what is left out as 0 has its default again
        if (options.filesplit_size_ == 0)
            options.filesplit_size_ = 4294967296;
        if (options.cbm_recycle_level_ == 0)
            options.cbm_recycle_level_ = -1;
        ASSERT_EQ(fields(options), fields(parsed.object()));
    }
}

} // namespace
