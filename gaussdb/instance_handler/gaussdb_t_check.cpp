#include "gaussdb/instance_handler/gaussdb_t_check.h"

#include "gaussdb/common/gaussdb_client.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "host/agent/instance_manager.h"
#include "host/catalog/catalog_operator.h"
#include "host/process/password_file_entry.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr char FUSE_DEVICE[] = "/dev/fuse";

std::string mib(uint64_t bytes) {
    constexpr unsigned MIB_SHIFT = 20;
    return std::to_string(bytes >> MIB_SHIFT) + " MiB";
}

json_spirit::Object last_backup(std::string const& resource, char const* type) {
    json_spirit::Object query{
        {"resource_uuid", resource}, {"sort", "backup_end_time"}, {"order", "desc"}, {"limit", 1}};
    if (type)
        query["type"] = type;
    json_spirit::Value row;
    return Catalog_Operator(-1, 0).get_first_view("gaussdb", "catalogs", query, row) &&
                   row.type() == json_spirit::obj_type
               ? row.get_obj()
               : json_spirit::Object();
}

} // namespace

GaussDB_T_Check::GaussDB_T_Check(Instance const& instance) : instance_(instance) {
    instance.get_option("user", user_);
    instance.get_option("cache_dir", cache_dir_);
}

std::vector<Instance_Check> GaussDB_T_Check::run() {
    read_last_backup();
    database();
    cache_directory(mount());
    return lines_;
}

void GaussDB_T_Check::read_last_backup() {
    if (cache_dir_.empty())
        if (std::string const set = json_spirit::object_get_str(
                last_backup(instance_.uuid, nullptr), "meta_destination");
            !set.empty())
            cache_dir_ = dirname_string(set);
    json_spirit::object_get(last_backup(instance_.uuid, "full"), "backup_set_size", needed_);
}

// the database

void GaussDB_T_Check::database() {
    // the agent's own check reports a missing account
    for (auto const& account : instance_.logon_options)
        database_by(account.first);
}

void GaussDB_T_Check::database_by(std::string const& uid) {
    GaussDB_Cluster_Manager const* const clusters = GaussDB_Cluster_Manager::instance();
    GaussDB_Cluster_Handler_var const cluster =
        clusters ? clusters->get_cluster(instance_.name.c_str()) : GaussDB_Cluster_Handler_var();
    std::string username;
    secure_string password;
    if (cluster.null() ||
        Instance_Manager::instance()->get_account("gaussdb", uid.c_str(), instance_.name.c_str(),
                                                  username, password) != 0)
        return;
    GaussDB_Client_ptr const client =
        cluster->create_client(username.c_str(), password.c_str(), nullptr);
    std::vector<std::string> rows;
    std::string const subject = "database as " + username;
    if (!client || !client->query("select status from dv_database", rows, true) || rows.empty())
        return bad(subject, "it does not answer; the agent's log says why",
                   "start the database, or correct the account: zenbrak3 account " +
                       instance_.name + " " + username);
    if (rows.front() == "OPEN")
        return good(subject, "OPEN");
    bad(subject, "its state is " + names::shown(rows.front()) + ", and a backup needs OPEN",
        "open it as its administrator: alter database open");
}

// the two ways into the pool

bool GaussDB_T_Check::mount() {
    std::string const subject = "mount";
    File_Descriptor const device(open(FUSE_DEVICE, O_RDWR | O_CLOEXEC));
    if (!device) {
        bad(subject, string_sprintf("%s cannot be opened: %s", FUSE_DEVICE, strerror(errno)),
            "load the kernel's module, modprobe fuse, or back up without mount=true");
        return false;
    }
    if (geteuid() != 0) {
        bad(subject, "the agent may not mount for the user " + user_, "run the agent as root");
        return false;
    }
    good(subject, std::string(FUSE_DEVICE) + " is there");
    return true;
}

void GaussDB_T_Check::cache_directory(bool can_mount) {
    if (cache_dir_.empty())
        return good("cache directory", "not looked at; name it by --cache-dir");
    std::string const subject = "cache directory " + names::shown(cache_dir_);
    Password_File_Entry user;
    if (std::string const fault = names::fault_of_bare_path(cache_dir_); !fault.empty())
        return bad(subject, "it " + fault, "choose another directory for cache_dir");
    if (user.get(user_.c_str()) == -1)
        return; // the agent's own check reports an unknown user
    if (std::string const closed = closed_directory(cache_dir_, user.uid()); !closed.empty())
        return bad(subject, "the user " + user_ + " cannot pass through " + closed,
                   "run: chmod o+x " + closed);
    struct stat status {};
    if (stat(cache_dir_.c_str(), &status) == -1)
        return bad(
            subject, strerror(errno),
            string_sprintf("run: install -d -o %s -m 700 %s", user_.c_str(), cache_dir_.c_str()));
    if (!S_ISDIR(status.st_mode))
        return bad(subject, "it is not a directory", "choose another directory for cache_dir");
    if (status.st_uid != user.uid())
        return bad(subject, "it does not belong to the user " + user_,
                   string_sprintf("run: chown %s %s", user_.c_str(), cache_dir_.c_str()));
    if ((status.st_mode & S_IRWXU) != S_IRWXU)
        return bad(subject, "its owner cannot write to it", "run: chmod u+rwx " + cache_dir_);
    room(subject, can_mount);
}

void GaussDB_T_Check::room(std::string const& subject, bool can_mount) {
    struct statvfs space {};
    if (statvfs(cache_dir_.c_str(), &space) == -1)
        return bad(subject, strerror(errno), "look at its file system");
    uint64_t const left = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    std::string text = mib(left) + " free";
    if (needed_)
        text += ", the last full backup took " + mib(needed_);
    if (left >= needed_ && left > 0)
        return good(subject, text);
    if (can_mount)
        return good(subject, text + ": enough with mount=true only");
    bad(subject, text, "make room in it");
}
