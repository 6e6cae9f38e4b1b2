#include "host/storage/mount_fuse.h"

#include "host/agent/host_services.h"
#include "host/process/log_callback_scope.h"
#include "host/storage/fuse_operations.h"
#include "host/storage/pool_file_system.h"
#include "host/storage/pool_mounts.h"
#include "host/storage/storage_url.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"
#include "qmrt/path.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/thread_helper.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <fuse3/fuse_lowlevel.h>
#include <mutex>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t THREADS = 4;
constexpr mode_t MOUNT_POINT_MODE = 0755;
constexpr mode_t USERS_MOUNT_POINT_MODE = 0700;
constexpr int64_t CONNECT_WAIT_NS = NS_PER_SECOND;

/** Sends libfuse's own lines, which come in pieces, to our log rather than to stderr. */
void log_fuse_line(fuse_log_level level, char const* format, va_list arguments) {
    static std::mutex mutex;
    static std::string line;
    std::lock_guard const guard(mutex);
    line += string_vsprintf(format, arguments);
    if (!line.ends_with('\n'))
        return;
    ACE_Log_Priority const priority = level <= FUSE_LOG_ERR       ? LM_ERROR
                                      : level <= FUSE_LOG_WARNING ? LM_WARNING
                                                                  : LM_DEBUG;
    QMRT_LOG(priority, "%s", line.c_str());
    line.clear();
}

/** The URL of the folder above; "" when there is none. */
std::string parent_of(std::string url) {
    while (url.ends_with('/'))
        url.pop_back();
    size_t const slash = url.rfind('/');
    return slash == std::string::npos || url[slash - 1] == '/' ? "" : url.substr(0, slash);
}

} // namespace

/** A mount with its threads. */
struct Mount_Fuse::Session {
    Session(std::shared_ptr<Storage_Connection> connection,
            Pool_File_System::Settings const& settings)
        : file_system(std::move(connection), settings), stop(eventfd(0, EFD_CLOEXEC)) {}
    ~Session() { close(); }

    bool open(std::vector<std::string> const& words, std::string const& where);
    void close();

    /**
     * The mount point as the kernel is told it, at the mounting and at the unmounting. Root names
     * the directory that was looked at, since whoever owns one above it may have put another in its
     * place. fusermount3, which mounts for others, has no descriptors of ours.
     */
    std::string place() const {
        return geteuid() == 0 ? "/proc/self/fd/" + std::to_string(point.get()) : mount_point;
    }

    /** Serves the kernel until it is told to stop or the mount is gone. */
    void serve();
    void stop_threads();

    Pool_File_System file_system;
    Fuse_Context context;
    std::shared_ptr<ACE_Log_Msg_Callback> callback;
    std::string mount_point; ///< for messages
    File_Descriptor point;   ///< the directory that is covered; closed after the unmounting
    File_Descriptor stop;
    fuse* handle = nullptr;
    bool is_mounted = false;
    std::vector<std::unique_ptr<Thread_Helper>> threads;
};

bool Mount_Fuse::Session::open(std::vector<std::string> const& words, std::string const& where) {
    mount_point = where;
    fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
    Scoped_Deleter const free_arguments([&] { fuse_opt_free_args(&arguments); });
    for (std::string const& word : words)
        if (fuse_opt_add_arg(&arguments, word.c_str()) == -1)
            return false;
    handle = fuse_new(&arguments, &pool_fuse_operations(), sizeof(fuse_operations), &context);
    if (!handle || fuse_mount(handle, place().c_str()) != 0)
        return false;
    is_mounted = true;
    int const fd = fuse_session_fd(fuse_get_session(handle));
    if (!stop || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == -1 ||
        fuse_start_cleanup_thread(handle) != 0)
        return false;
    for (size_t i = 0; i < THREADS; ++i) {
        threads.push_back(std::make_unique<Thread_Helper>(THR_NEW_LWP | THR_JOINABLE,
                                                          ACE_DEFAULT_THREAD_PRIORITY));
        if (threads.back()->spawn([this] { serve(); }) == -1)
            return false;
        threads.back()->set_name("pool-mount");
    }
    return true;
}

void Mount_Fuse::Session::serve() {
    Log_Callback_Scope const scope(callback);
    fuse_session* const session = fuse_get_session(handle);
    fuse_buf request{};
    while (!fuse_session_exited(session)) {
        std::array<pollfd, 2> fds{{{fuse_session_fd(session), POLLIN, 0}, {stop.get(), POLLIN, 0}}};
        if (poll(fds.data(), fds.size(), -1) == -1 && errno != EINTR)
            break;
        if (fds[1].revents)
            break;
        // another thread may have been quicker: then there is nothing, and -EAGAIN
        int const size = fuse_session_receive_buf(session, &request);
        if (size > 0)
            fuse_session_process_buf(session, &request);
        else if (size == 0 || (size != -EAGAIN && size != -EINTR))
            break;
    }
    free(request.mem);
}

void Mount_Fuse::Session::stop_threads() {
    uint64_t const one = 1;
    if (write(stop.get(), &one, sizeof one) == -1)
        QMRT_LOG(LM_ERROR, "Failed to stop the mount at %s, %m\n", mount_point.c_str());
    for (auto const& thread : threads)
        thread->join();
    threads.clear();
}

void Mount_Fuse::Session::close() {
    if (!handle)
        return;
    bool const started = !threads.empty();
    stop_threads();
    if (started)
        fuse_stop_cleanup_thread(handle);
    if (is_mounted)
        fuse_unmount(handle);
    fuse_destroy(handle);
    handle = nullptr;
    if (is_mounted)
        unmount_dead_pools(); // libfuse leaves a mount whose connection was cut
}

Mount_Fuse::Mount_Fuse() = default;

Mount_Fuse::~Mount_Fuse() {
    unmount();
}

bool Mount_Fuse::compression_method(Compression_Method method, int level) {
    if (method < COMPR_NONE || method > COMPR_ZSTD)
        return false;
    compression_ = method;
    compression_level_ = level;
    return true;
}

bool Mount_Fuse::encryption_method(Encryption_Method method, void const* key, size_t key_size,
                                   void const* iv, size_t iv_size) {
    auto const text_of = [](void const* data, size_t size) {
        return secure_string(std::string_view(static_cast<char const*>(data), data ? size : 0));
    };
    if (!can_encrypt(method, text_of(key, key_size), text_of(iv, iv_size)))
        return false;
    encryption_ = method;
    return true;
}

bool Mount_Fuse::find_user(uid_t& uid, gid_t& gid) const {
    uid = geteuid();
    gid = getegid();
    if (user_.empty())
        return true;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    int const error = getpwnam_r(user_.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (!found) {
        QMRT_LOG(LM_ERROR, "Failed to mount for user %s, the user is not known, errno=%d\n",
                 user_.c_str(), error);
        return false;
    }
    uid = entry.pw_uid;
    gid = entry.pw_gid;
    return true;
}

bool Mount_Fuse::connect(std::string const& source,
                         std::shared_ptr<Storage_Connection>& connection) {
    Storage_Url url;
    std::string error;
    if (!parse_storage_url(source, url, error)) {
        QMRT_LOG(LM_ERROR, "Failed to mount '%s', invalid URL, %s\n", source.c_str(),
                 error.c_str());
        return false;
    }
    auto const backend = Host_Services::instance().storage(url.scheme);
    if (!backend) {
        QMRT_LOG(LM_ERROR, "Failed to mount %s, no storage for URLs of '%s'\n", source.c_str(),
                 url.scheme.c_str());
        return false;
    }
    Storage_Access access = access_;
    if (std::string const parent = parent_of(source); access.pool_url().empty() && !parent.empty())
        access.extra_options[Storage_Access::POOL_URL] = parent;
    Storage_Clock& clock = Storage_Clock::system();
    int64_t const end =
        clock.steady_ns() +
        static_cast<int64_t>(std::min<uint64_t>(retry_timeout_, INT32_MAX)) * NS_PER_SECOND;
    Storage_Result result = backend->connect(source, access, connection);
    while (result.code() == Storage_Result::UNREACHABLE && clock.steady_ns() < end) {
        clock.sleep_ns(CONNECT_WAIT_NS);
        result = backend->connect(source, access, connection);
    }
    if (!result)
        QMRT_LOG(LM_ERROR, "Failed to mount %s, %s\n", source.c_str(), result.text().c_str());
    return static_cast<bool>(result);
}

/**
 * Opens the mount point, and makes it when it is absent. That of a user has to be the user's own,
 * or it would cover what others rely on; its path is followed with that user's rights.
 */
File_Descriptor Mount_Fuse::open_mount_point(std::string const& path, uid_t uid) const {
    As_File_User const rights(uid);
    File_Descriptor point;
    if (rights && !path.empty() &&
        mkdir_p(path.c_str(), user_.empty() ? MOUNT_POINT_MODE : USERS_MOUNT_POINT_MODE) == 0)
        point.reset(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!point) {
        QMRT_LOG(LM_ERROR, "Failed to make mount point '%s', errno=%d, %m\n", path.c_str(), errno);
        return File_Descriptor();
    }
    struct stat status;
    if (fstat(point.get(), &status) == 0 && (user_.empty() || status.st_uid == uid))
        return point;
    QMRT_LOG(
        LM_ERROR,
        "Failed to mount at %s, the directory does not belong to the user %s; run: chown %s %s\n",
        path.c_str(), user_.c_str(), user_.c_str(), path.c_str());
    return File_Descriptor();
}

bool Mount_Fuse::mount(char const* source, char const* mount_point,
                       std::shared_ptr<ACE_Log_Msg_Callback> callback) {
    std::string const from = source ? source : "";
    std::string const to = mount_point ? mount_point : "";
    if (session_) {
        QMRT_LOG(LM_ERROR, "Failed to mount %s, %s is mounted already\n", from.c_str(),
                 session_->mount_point.c_str());
        return false;
    }
    Pool_File_System::Settings settings;
    settings.compression = compression_;
    settings.writing.compression_level = compression_level_;
    settings.writing.spool_directory = spool_directory_;
    settings.read_only = read_mode_ == READ_ONLY;
    settings.retry_timeout = retry_timeout_;
    std::shared_ptr<Storage_Connection> connection;
    if (!find_user(settings.uid, settings.gid) || !connect(from, connection))
        return false;
    unmount_dead_pools(); // one of a killed agent may be in the way
    File_Descriptor point = open_mount_point(to, settings.uid);
    if (!point)
        return false;
    std::vector<std::string> words{"zenbrak3", "-o",
                                   std::string("fsname=") + POOL_MOUNT_SOURCE +
                                       ",subtype=" + POOL_MOUNT_SUBTYPE + ",default_permissions"};
    if (settings.uid != geteuid())
        words.insert(words.end(), {"-o", "allow_other"});
    if (settings.read_only)
        words.insert(words.end(), {"-o", "ro"});
    std::istringstream others(other_options_);
    for (std::string word; others >> word;)
        words.push_back(word);
    fuse_set_log_func(log_fuse_line);
    auto session = std::make_unique<Session>(std::move(connection), settings);
    session->context.file_system = &session->file_system;
    session->context.async_read = read_mode_ == ASYNC_READ;
    session->context.big_write = big_write_;
    session->callback = std::move(callback);
    session->point = std::move(point);
    if (!session->open(words, to)) {
        QMRT_LOG(LM_ERROR, "Failed to mount %s at %s\n", from.c_str(), to.c_str());
        return false;
    }
    session_ = std::move(session);
    return true;
}

void Mount_Fuse::unmount() {
    session_.reset();
}
