#include "host/storage/xbsa_folder.h"

#include "host/process/password_file_entry.h"
#include "host/storage/file_pool_folder.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/storage_url.h"
#include "host/storage/xbsa_layout.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/uuid.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char XBSA[] = "xbsa";
constexpr mode_t PASSAGE_MODE = 0711;
constexpr mode_t CLOSED_MODE = 0700;
constexpr mode_t MODE_BITS = 07777;
/** Somebody else, to see whether a file can be given away. */
constexpr uid_t ANYBODY = 65534;

std::string name_of(uid_t uid) {
    Password_File_Entry entry;
    return entry.get_by_uid(uid) == 0 ? entry.name() : "#" + std::to_string(uid);
}

Storage_Result failed(std::string const& text) {
    return {Storage_Result::FAILED, text};
}

File_Descriptor enter_folder(int parent, std::string const& name) {
    return File_Descriptor(
        openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

File_Descriptor make_and_enter(int parent, std::string const& name, mode_t mode) {
    if (mkdirat(parent, name.c_str(), mode) == -1 && errno != EEXIST)
        return File_Descriptor();
    return enter_folder(parent, name);
}

/** Sets owner and mode of what is open; true when they are so then, as not every file system does.
 */
bool set_owner_and_mode(int fd, uid_t uid, gid_t gid, mode_t mode) {
    struct stat status;
    if (fstat(fd, &status) == -1)
        return false;
    if (status.st_uid != uid && fchown(fd, uid, gid) == -1)
        return false;
    if ((status.st_mode & MODE_BITS) != mode && fchmod(fd, mode) == -1)
        return false;
    return fstat(fd, &status) == 0 && status.st_uid == uid && (status.st_mode & MODE_BITS) == mode;
}

bool take_for_root(int fd, mode_t mode) {
    return set_owner_and_mode(fd, geteuid(), getegid(), mode);
}

/** The path of a pool that is a directory; "" for another kind. */
std::string directory_of(std::string const& pool_url) {
    Storage_Url url;
    std::string fault;
    return parse_storage_url(pool_url, url, fault) && url.scheme == File_Storage_Backend::SCHEME
               ? url.path
               : "";
}

void each_entry(int folder, std::function<void(char const* name)> const& visit) {
    File_Descriptor copy(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, Directory_Closer> const directory(copy ? fdopendir(copy.get()) : nullptr);
    if (!directory)
        return;
    copy.release();
    while (dirent const* entry = readdir(directory.get()))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            visit(entry->d_name);
}

/** What is not the XBSA library's in a cluster's folder is root's. */
void close_others_of_cluster(int cluster) {
    each_entry(cluster, [&](char const* name) {
        File_Descriptor const folder = enter_folder(cluster, name);
        if (folder && std::strcmp(name, XBSA) != 0)
            take_for_root(folder.get(), CLOSED_MODE);
    });
}

/** Makes a file without a name, so that the folder is not changed; -1 if it cannot be written. */
File_Descriptor open_unnamed(int folder, bool& is_possible) {
    File_Descriptor file(openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, OBJECT_MODE));
    is_possible = file || (errno != EOPNOTSUPP && errno != EISDIR);
    return file;
}

/** A new file in a folder: without a name, or removed again where there are only named ones. */
File_Descriptor open_scratch(int folder) {
    bool is_possible = false;
    File_Descriptor unnamed = open_unnamed(folder, is_possible);
    if (is_possible)
        return unnamed;
    std::string const name = UNFINISHED_PREFIX + uuid_string();
    File_Descriptor file(
        openat(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, OBJECT_MODE));
    return file && unlinkat(folder, name.c_str(), 0) == 0 ? std::move(file) : File_Descriptor();
}

bool can_user_write(int folder, uid_t uid) {
    As_File_User const user(uid);
    return bool(open_scratch(user ? folder : -1));
}

/** @param path  of the open folder, by which its user has to get there, too */
Storage_Result check_folder_writable(int folder, std::string const& path,
                                     Password_File_Entry const& user) {
    struct stat status;
    if (fstat(folder, &status) == -1)
        return storage_errno("cannot open " + path, errno);
    if (std::string const closed = closed_directory(path, user.uid()); !closed.empty())
        return failed("the user " + std::string(user.name()) + " cannot pass through " + closed +
                      ", which belongs to the user " + name_of(status.st_uid));
    if (can_user_write(folder, user.uid()))
        return {};
    return failed(path + " belongs to the user " + name_of(status.st_uid) + "; the user " +
                  user.name() + " cannot write to it");
}

/** The xbsa folder of a cluster's folder, for its user. */
Storage_Result give_folder(int cluster, std::string const& where, Password_File_Entry const& user) {
    File_Descriptor const xbsa = make_and_enter(cluster, XBSA, CLOSED_MODE);
    struct stat status;
    if (!xbsa || fstat(xbsa.get(), &status) == -1)
        return storage_errno("cannot make " + where, errno);
    if (status.st_uid != user.uid() && status.st_uid != geteuid())
        return failed(where + " belongs to the user " + name_of(status.st_uid) + "; the user " +
                      user.name() + " cannot have backups there. Give this cluster another pool");
    if (set_owner_and_mode(xbsa.get(), user.uid(), user.gid(), CLOSED_MODE))
        return {};
    int const error = errno;
    if (!can_user_write(xbsa.get(), user.uid()))
        return failed(where + " cannot be given to the user " + user.name() + ": " +
                      strerror(error) + "; use a file system with owners, where root can set them");
    QMRT_LOG(LM_WARNING,
             "%s cannot be given to the user %s: other users may reach the backups in "
             "it\n",
             where.c_str(), user.name().c_str());
    return {};
}

} // namespace

Storage_Result give_xbsa_folder(std::string const& pool_url, std::string const& cluster_id,
                                std::string const& user) {
    std::string const path = directory_of(pool_url);
    if (path.empty())
        return {};
    if (std::string const fault = names::fault_of_id(cluster_id); !fault.empty())
        return {Storage_Result::BAD_NAME, "the cluster's id " + fault};
    Password_File_Entry entry;
    if (entry.get(user.c_str()) == -1)
        return failed("the user " + names::shown(user) + " is not known on this host");
    File_Descriptor const pool(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!pool)
        return {Storage_Result::UNREACHABLE, storage_errno("cannot open " + path, errno).text()};
    std::string const where = path + "/" + cluster_id;
    File_Descriptor const cluster = make_and_enter(pool.get(), cluster_id, PASSAGE_MODE);
    if (!cluster)
        return storage_errno("cannot make " + where, errno);
    // root's first: nobody replaces what is in it from then on. As far as the file system can.
    take_for_root(cluster.get(), PASSAGE_MODE);
    close_others_of_cluster(cluster.get());
    return give_folder(cluster.get(), where + "/" + XBSA, entry);
}

Storage_Result check_xbsa_folder_readable(std::string const& pool_url,
                                          std::string const& cluster_id, std::string const& user) {
    std::string const path = directory_of(pool_url);
    Password_File_Entry entry;
    struct stat status;
    if (path.empty() || entry.get(user.c_str()) == -1)
        return {};
    std::string const where = path + "/" + xbsa_cluster_folder(cluster_id);
    if (lstat(where.c_str(), &status) == -1 || status.st_uid == entry.uid())
        return {};
    As_File_User const rights(entry.uid());
    if (rights && enter_folder(AT_FDCWD, where))
        return {};
    return failed(where + " belongs to the user " + name_of(status.st_uid) + "; the user " + user +
                  " cannot read the backups in it. Restore as the first, or let the second in: "
                  "setfacl -R -m u:" +
                  user + ":rX " + where);
}

Storage_Result check_pool_writable(std::string const& pool_path, std::string const& cluster_id,
                                   std::string const& user) {
    Password_File_Entry entry;
    if (entry.get(user.c_str()) == -1)
        return failed("the user " + names::shown(user) + " is not known on this host");
    if (std::string const closed = closed_directory(pool_path, entry.uid()); !closed.empty())
        return failed("the user " + user + " cannot pass through " + closed);
    std::string const folder = pool_path + "/" + xbsa_cluster_folder(cluster_id);
    File_Descriptor const existing = enter_folder(AT_FDCWD, folder);
    if (existing)
        return check_folder_writable(existing.get(), folder, entry);
    if (errno != ENOENT)
        return storage_errno("cannot open " + folder, errno);
    File_Descriptor const pool(open(pool_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // root makes the user's folder there before the first backup
    File_Descriptor const file = open_scratch(pool.get());
    if (!file)
        return storage_errno("cannot write to " + pool_path, errno);
    set_owner_and_mode(file.get(), entry.uid(), entry.gid(), OBJECT_MODE);
    As_File_User const rights(entry.uid());
    std::string const own = "/proc/self/fd/" + std::to_string(file.get());
    if (rights && File_Descriptor(open(own.c_str(), O_WRONLY | O_CLOEXEC)))
        return {};
    return failed("the user " + user + " cannot write to what root makes for it in " + pool_path);
}

Storage_Result separate_pool(std::string const& path) {
    File_Descriptor const pool(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!pool)
        return storage_errno("cannot open " + path, errno);
    take_for_root(pool.get(), PASSAGE_MODE); // where that fails, fault_of_separation() tells
    each_entry(pool.get(), [&](char const* name) {
        File_Descriptor const folder = enter_folder(pool.get(), name);
        if (!folder)
            return;
        File_Descriptor const xbsa = enter_folder(folder.get(), XBSA);
        take_for_root(folder.get(), xbsa ? PASSAGE_MODE : CLOSED_MODE);
        close_others_of_cluster(folder.get());
        if (xbsa)
            fchmod(xbsa.get(), CLOSED_MODE);
    });
    return {};
}

std::string fault_of_separation(std::string const& path) {
    File_Descriptor const pool(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!pool || fstat(pool.get(), &status) == -1)
        return "its directory cannot be opened: " + std::string(strerror(errno));
    File_Descriptor const file = open_scratch(pool.get());
    if (!file)
        return "its directory cannot be written: " + std::string(strerror(errno));
    bool const has_owners =
        geteuid() != 0 || set_owner_and_mode(file.get(), ANYBODY, ANYBODY, OBJECT_MODE);
    if (!has_owners)
        return "its file system does not keep owners, or root cannot set them: the databases' "
               "users "
               "can reach each other's backups in it";
    if (status.st_uid != geteuid() || (status.st_mode & 077) != 011)
        return "other users can list or change its directory";
    return "";
}
