#include "gaussdb/job/gaussdb_t_restore_executor.h"

#include "gaussdb/common/gaussdb_process_options.h"
#include "gaussdb/common/user_rights.h"
#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/run_hold.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <ace/ACE.h>
#include <ace/Guard_T.h>
#include <ace/Lib_Find.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <map>
#include <set>
#include <unistd.h>

using json_spirit::extract_or_throw;

namespace {

// as get_file() takes them: O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, and blocks of 8 KiB at least
constexpr int GET_FLAGS = 0x80241;
constexpr size_t GET_BLOCK = 0x2000;

/** The directory for temporary files, without a "/" at its end. */
std::string temporary_directory() {
    char path[MAXPATHLEN] = "";
    if (ACE::get_temp_dir(path, sizeof path) == -1)
        return "/tmp";
    std::string directory = path;
    while (directory.size() > 1 && directory.ends_with('/'))
        directory.pop_back();
    return directory;
}

/** Unlinks every entry of a directory; one that cannot be unlinked stays. */
void unlink_entries(std::string const& path) {
    File_Descriptor const directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Directory_Reader reader(path.c_str());
    while (char const* const name = directory ? reader.next() : nullptr)
        (void)unlinkat(directory.get(), name, 0);
}

} // namespace

GaussDB_T_Restore_Executor::GaussDB_T_Restore_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_T_Run(job), temp_dir_(temporary_directory()) {}

GaussDB_T_Restore_Executor::~GaussDB_T_Restore_Executor() {
    for (Set_Directory const& directory : cache_dirs_)
        (void)directory.remove(); // logs its failure
}

bool GaussDB_T_Restore_Executor::execute_i(Job::Action_Options const*) {
    // a backup of the source may have its pool mounted where the sets are to stand
    Run_Hold const instances(job_, {Run_Hold::instance(src_->id()), Run_Hold::instance(tgt_.id())});
    if (!instances)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(tgt_.id()));
    if (!lock.locked() || QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    instance_ = tgt_.name();
    if (instance_.empty() && !parse_instance_entry(src_->restore_as_, instance_))
        return false;
    job_.phase("checking the backup sets");
    // its databases need not be those on record: they are what is replaced
    if (!find_instance() || !is_cluster_on_record(job_, instance_, false) || !has_tool("zctl.py") ||
        !has_tool("zsql") || !load_catalog(pool_uuid_))
        return false;
    return opts_->mount_ ? restore_by_mount(pool_uuid_) : execute_restore();
}

bool GaussDB_T_Restore_Executor::restore_by_mount(std::string const& pool_uuid) {
    Pool_Info pool;
    Client_IO_Base::Options opts;
    if (!get_pool_info(pool_uuid, nullptr, pool, true, 0) || !set_options_by_pool(opts, pool))
        return false;
    set_options_by_host(opts);
    set_options_by_job_def(opts, def_, 1);
    Mount_Fuse fuse; // unmounts at the end
    return mount_pool(fuse, pool, src_->id(), dirname_string(cache_dir_), opts) &&
           execute_restore();
}

// the chain

bool GaussDB_T_Restore_Executor::query_chain(json_spirit::Array& rows) const {
    json_spirit::Object query;
    json_spirit::insert(query)("resource_uuid", src_->id())("backup_key", src_->backup_key_)(
        "sort", "backup_start_time")("order", "desc")("cmode", "rb_orm_rows");
    if (!opts_->mount_)
        query["with_pieces"] = "1";
    json_spirit::Value result;
    if (!Catalog_Operator(-1, def_.max_seconds_retry())
             .get_view("gaussdb", "restore", query, result))
        return false;
    extract_or_throw(result.get_obj())("rows", rows, true);
    if (rows.empty())
        QMRT_LOG(LM_ERROR, "Nothing was changed, the catalog has no backup set with the key %s\n",
                 names::shown(src_->backup_key_).c_str());
    return !rows.empty();
}

bool GaussDB_T_Restore_Executor::load_catalog(std::string& pool_uuid) {
    try {
        json_spirit::Array rows;
        if (!query_chain(rows))
            return false;
        std::vector<json_spirit::Array> pieces;
        act_.set_size = 0;
        for (json_spirit::Value const& value : rows) {
            json_spirit::Object const& row = value.get_obj();
            Chain_Set set;
            uint64_t source_size = 0;
            extract_or_throw(row)("pool_uuid", set.pool_uuid, true)("uri", set.uri, true)(
                "meta_destination", set.meta_destination, true)("source_size", source_size, true)(
                "backup_set_size", set.size, true)("uuid", set.uuid, false)(
                "backup_key", set.backup_key, false)("incarnation", set.incarnation, false);
            pieces.emplace_back();
            if (!opts_->mount_)
                extract_or_throw(row)("pieces", pieces.back(), true);
            for (json_spirit::Object const& piece : json_spirit::objects_of(pieces.back()))
                if (std::string const path = json_spirit::object_get_str(piece, "path");
                    !path.empty())
                    set.pieces.push_back(path);
            act_.size = source_size;
            act_.set_size += set.size;
            if (cache_dir_.empty()) {
                cache_dir_ = set.meta_destination;
                pool_uuid = set.pool_uuid;
            }
            chain_.push_back(std::move(set));
        }
        if (!check_chain() ||
            !std::ranges::all_of(chain_, [&](Chain_Set const& set) { return check_stored(set); }))
            return false;
        if (opts_->mount_)
            return true;
        notes_.emplace(tgt_.id(), os_user_);
        if (!check_room())
            return false;
        for (size_t i = 0; i < chain_.size(); ++i)
            if (!fetch(chain_[i], pieces[i]))
                return false;
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get gaussdb catalog, %s\n", error.what());
        return false;
    }
}

/** The set with its full backup, each in a place of its own; for a mount all in one. */
bool GaussDB_T_Restore_Executor::check_chain() const {
    auto const refuse = [](Chain_Set const& set, std::string const& why) {
        QMRT_LOG(LM_ERROR, "Nothing was changed, backup set %s %s\n",
                 names::shown(set.uuid).c_str(), why.c_str());
        return false;
    };
    Chain_Set const& asked = chain_.front();
    std::set<std::string> places;
    bool has_full = false;
    for (Chain_Set const& set : chain_) {
        if (!check_path("directory of a backup set", set.meta_destination))
            return false;
        if (set.incarnation != asked.incarnation || set.incarnation.empty())
            return refuse(set, "does not say on which full backup it builds");
        has_full = has_full || set.backup_key == asked.incarnation;
        if (!places.insert(set.meta_destination).second || set.meta_destination.ends_with('/'))
            return refuse(set, "has no directory of its own: " + set.meta_destination);
        if (opts_->mount_ && (set.pool_uuid != asked.pool_uuid ||
                              dirname_string(set.meta_destination) != dirname_string(cache_dir_) ||
                              set.uri != src_->id() + "/" + qmrt::basename(set.meta_destination)))
            return refuse(set, "is not below the folder that is mounted; restore without a mount");
        for (std::string const& piece : set.pieces)
            if (std::string const fault = names::fault_of_file(piece); !fault.empty())
                return refuse(set, "has the piece '" + names::shown(piece) + "', which " + fault);
    }
    return has_full || refuse(asked, "needs the full backup " + names::shown(asked.incarnation) +
                                         ", which is not in the catalog");
}

/** The catalog does not know the size of each piece, but what they come to. */
bool GaussDB_T_Restore_Executor::check_stored(Chain_Set const& set) {
    if (!connect_to_storage(set.pool_uuid.c_str(), set.uri.c_str()))
        return false;
    std::vector<std::string> names = set.pieces;
    std::vector<Storage_Entry> entries;
    if (opts_->mount_ && !io_.list("", entries)) {
        QMRT_LOG(LM_ERROR, "Nothing was changed, backup set %s cannot be read: %s\n",
                 set.uuid.c_str(), io_.error().c_str());
        return false;
    }
    for (Storage_Entry const& entry : entries)
        if (!entry.is_folder)
            names.push_back(entry.name);
    uint64_t found = 0;
    for (std::string const& name : names) {
        uint64_t size = 0;
        if (canceled() || !io_.content_size(name.c_str(), size)) {
            QMRT_LOG(LM_ERROR,
                     "Nothing was changed, piece %s of backup set %s cannot be read: %s\n",
                     name.c_str(), set.uuid.c_str(),
                     canceled() ? "the run was canceled" : io_.error().c_str());
            return false;
        }
        found += size;
    }
    if (found == set.size)
        return true;
    QMRT_LOG(LM_ERROR,
             "Nothing was changed, backup set %s has %Q bytes in the pool in place of %Q: it is "
             "damaged or not whole\n",
             set.uuid.c_str(), found, set.size);
    return false;
}

bool GaussDB_T_Restore_Executor::check_room() {
    struct File_System {
        uint64_t room = 0;
        uint64_t needed = 0;
        std::string path;
    };
    std::map<dev_t, File_System> file_systems;
    for (Chain_Set const& set : chain_) {
        uint64_t room = 0;
        dev_t device = 0;
        if (!Set_Directory(set.meta_destination, os_user_).find_room(room, device))
            return false;
        File_System& file_system = file_systems[device];
        file_system.room = room;
        file_system.needed += set.size;
        file_system.path = dirname_string(set.meta_destination);
    }
    for (auto const& [device, file_system] : file_systems)
        if (file_system.room < file_system.needed) {
            QMRT_LOG(LM_ERROR,
                     "Nothing was changed, the backup sets need %Q bytes in %s, where %Q are free; "
                     "make room there, or restore by a mount\n",
                     file_system.needed, file_system.path.c_str(), file_system.room);
            return false;
        }
    return true;
}

// the sets

bool GaussDB_T_Restore_Executor::connect_to_storage(char const* pool_uuid, char const* uri) {
    Pool_Info pool;
    Client_IO_Base::Options opts;
    if (!get_pool_info(pool_uuid, nullptr, pool, true, 0))
        return false;
    if (!set_options_by_pool(opts, pool)) {
        QMRT_LOG(LM_ERROR, "Invalid encryption setting\n");
        return false;
    }
    set_options_by_host(opts);
    set_options_by_job_def(opts, def_, 1);
    set_d2t_access_mode(opts);
    opts.compression_method = COMPR_AUTO;
    opts.dedup_chunk_size = 1;
    return connect_to(pool, uri, opts);
}

bool GaussDB_T_Restore_Executor::fetch(Chain_Set const& set, json_spirit::Array const& pieces) {
    cache_dirs_.emplace_back(set.meta_destination, os_user_);
    return notes_->add(set.meta_destination) && cache_dirs_.back().make() &&
           connect_to_storage(set.pool_uuid.c_str(), set.uri.c_str()) &&
           get_backup_set(set.meta_destination.c_str(), pieces) && cache_dirs_.back().hand_over();
}

/** Fetches into the directory that was made last. */
bool GaussDB_T_Restore_Executor::get_backup_set(char const* dir, json_spirit::Array const& pieces) {
    for (json_spirit::Object const& piece : json_spirit::objects_of(pieces)) {
        std::string const path = json_spirit::object_get_str(piece, "path");
        if (path.empty())
            continue;
        std::string const name = uncompressed_name(path);
        job_.phase("fetching " + name);
        if (canceled() ||
            !io_.get_file(path.c_str(), cache_dirs_.back().inside(name).c_str(), GET_FLAGS,
                          GET_BLOCK, report_from(fetched_, act_.set_size))) {
            QMRT_LOG(LM_ERROR, "Failed to get file %s to %s: %s\n", path.c_str(),
                     (qmrt::Path(dir) / name).c_str(),
                     canceled() ? "the run was canceled" : io_.error().c_str());
            return false;
        }
        fetched_ += io_.original_size();
    }
    return true;
}

// the database

/** Whether a program is on the instance's PATH: without it the data would be gone in vain. */
bool GaussDB_T_Restore_Executor::has_tool(char const* name) const {
    std::string const path = cluster_->env().get_value("PATH");
    for (size_t begin = 0; begin <= path.size();) {
        size_t const end = std::min(path.find(':', begin), path.size());
        if (access((path.substr(begin, end - begin) + "/" + name).c_str(), X_OK) == 0)
            return true;
        begin = end + 1;
    }
    QMRT_LOG(LM_ERROR, "Nothing was changed, %s is not on the PATH of instance %s: %s\n", name,
             instance_.c_str(), path.c_str());
    return false;
}

bool GaussDB_T_Restore_Executor::clean_data_dir() const {
    std::string const data = cluster_->env().get_value("GSDB_DATA");
    if (data.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to get %s data dir\n", instance_.c_str());
        return false;
    }
    // the user decides where a link on the path leads to
    return with_rights_of(os_user_.c_str(), [&](Password_File_Entry const&) {
        unlink_entries((qmrt::Path(data) / "data").str());
        return true;
    });
}

bool GaussDB_T_Restore_Executor::execute_zctl(char const* cmd) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    GaussDB_Process_Options opts;
    return set_local_options(opts, cluster_->env(), os_user_.c_str()) &&
           set_process_env(opts, "HOME", temp_dir_.c_str()) && set_command_line(opts, "%s", cmd) &&
           subprocess::call_unlimited(opts, {}) == 0;
}

bool GaussDB_T_Restore_Executor::execute_restore() {
    if (canceled())
        return false;
    job_.phase("the database restores its backup sets");
    if (!clean_data_dir()) {
        QMRT_LOG(LM_ERROR, "Failed to clean %s data dir\n", instance_.c_str());
        return false;
    }
    if (rebuild())
        return true;
    QMRT_LOG(
        LM_ERROR,
        "Instance %s is down or not open, and its data is gone: put right what failed, and run "
        "the restore again\n",
        instance_.c_str());
    return false;
}

bool GaussDB_T_Restore_Executor::rebuild() {
    if (!execute_zctl("zctl.py -t stop"))
        QMRT_LOG(LM_WARNING, "Failed to stop instance %s, it may be down already\n",
                 instance_.c_str());
    if (!execute_zctl("zctl.py -t start -m nomount"))
        return false;
    std::string const statement =
        string_sprintf("restore database from '%s' parallelism %d;\nrecover database;",
                       cache_dir_.c_str(), opts_->channels_);
    std::vector<std::string> rows;
    client_->unlimited(true);
    return client_->query(statement.c_str(), rows, true) &&
           client_->query("alter database open", rows, true);
}
