#include "host/yajl/yajl_gen.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <cstdio>
#include <functional>

/**
 * Writes job definitions as generate() writes them, one a line: the kind, a tab, the JSON. Every
 * field is at random, but has a value that a person could mean: these go through the schemas.
 */
namespace {

int print(char const* kind, std::function<int(yajl_gen)> const& generate) {
    YAJL_Gen gen;
    if (generate(gen.get()) != 0)
        return 1;
    std::printf("%s\t%s\n", kind, gen.text().c_str());
    return 0;
}

/** A name within an entry. */
std::string segment(Random_Definitions& random) {
    static constexpr char const* NAMES[] = {"a", "Sales", "d%2Fd", "\xC3\xA4 \"x\"", "100%25"};
    return NAMES[random.below(std::size(NAMES))];
}

std::string entry(Random_Definitions& random, char const* type, int names) {
    std::string result = "gaussdb/" + segment(random);
    if (random.flag())
        return result;
    result += std::string("/") + type;
    for (int name = 0; name < names; ++name)
        result += "/" + segment(random);
    return result;
}

int print_backup(Random_Definitions& random) {
    GaussDB_Backup_Job_Options options = random.backup_options();
    for (int* const field :
         {&options.channels_, &options.max_memory_usage_, &options.buffer_size_,
          &options.buffer_block_size_, &options.compression_level_,
          &options.roach_compression_type_, &options.roach_compression_level_, &options.cpu_cores_})
        *field = random.count();
    options.cbm_recycle_level_ = random.count() - (random.flag() ? 1 : 0);
    GaussDB_Backup_Job_Source source;
    source.id(random.text());
    source.name(random.text());
    for (unsigned int entries = 1 + random.below(4); entries > 0; --entries)
        source.add_entry(entry(random, "schema", 2));
    return print("backup-job-options", [&](yajl_gen gen) { return options.generate(gen); }) +
           print("backup-job-source", [&](yajl_gen gen) { return source.generate(gen); });
}

int print_restore(Random_Definitions& random) {
    GaussDB_Restore_Job_Options options = random.restore_options();
    for (int* const field : {&options.channels_, &options.max_memory_usage_, &options.buffer_size_,
                             &options.buffer_block_size_})
        *field = random.count();
    options.restore_time_ = random.flag() ? "" : "2026-11-21T10:00:00+08:00";
    GaussDB_Restore_Job_Source source = random.restore_source();
    source.restore_as_ = "gaussdb/" + segment(random);
    source.entries_.clear();
    for (unsigned int entries = random.below(4); entries > 0; --entries)
        source.add_entry(entry(random, "table", 5));
    return print("restore-job-options", [&](yajl_gen gen) { return options.generate(gen); }) +
           print("restore-job-source", [&](yajl_gen gen) { return source.generate(gen); });
}

} // namespace

int main() {
    Random_Definitions random(6);
    int failures = 0;
    for (int round = 0; round < 300; ++round)
        failures += print_backup(random) + print_restore(random);
    return failures ? 1 : 0;
}
