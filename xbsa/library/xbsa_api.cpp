#include "xbsa/library/xbsa.h"

#include "qmrt/log.h"
#include "qmrt/no_sigpipe.h"
#include "xbsa/library/xbsa_log.h"
#include "xbsa/library/xbsa_session.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <unistd.h>
#include <vector>

namespace {

constexpr char PROVIDER[] = "quilmot/zenbrak3/1.0";
constexpr char DELIMITER = '/';
constexpr size_t MAX_ENVIRONMENT = 1024;
constexpr size_t MAX_ENVIRONMENT_TEXT = 4096;

/** Why the thread's last call failed. */
thread_local std::string last_error;

/** The sessions of the process by their handles. */
class Session_Table {
public:
    struct Entry {
        std::mutex in_use;
        pid_t const process = getpid();
        std::unique_ptr<Xbsa_Session> session; ///< null when it has ended
    };

    /** Never destroyed, since threads may be in a call when the process ends. */
    static Session_Table& instance() {
        static Session_Table* const table = new Session_Table;
        return *table;
    }

    long add(std::unique_ptr<Xbsa_Session> session) {
        auto entry = std::make_shared<Entry>();
        entry->session = std::move(session);
        std::lock_guard const guard(mutex_);
        entries_[++last_handle_] = std::move(entry);
        return last_handle_;
    }
    /** Null for a handle that is not valid, and for one of the process that forked this one. */
    std::shared_ptr<Entry> find(long handle) {
        std::lock_guard const guard(mutex_);
        auto const found = entries_.find(handle);
        return found != entries_.end() && found->second->process == getpid() ? found->second
                                                                             : nullptr;
    }
    void remove(long handle) {
        std::lock_guard const guard(mutex_);
        entries_.erase(handle);
    }
    /** Ends what the process has left open, except for what is in use. */
    void end_all() {
        std::unique_lock const guard(mutex_, std::try_to_lock);
        if (!guard)
            return;
        for (auto const& [handle, entry] : entries_) {
            std::unique_lock const use(entry->in_use, std::try_to_lock);
            if (use && entry->process == getpid())
                entry->session.reset();
        }
    }

private:
    std::mutex mutex_;
    std::map<long, std::shared_ptr<Entry>> entries_;
    long last_handle_ = 0;
};

/** A process that ends without BSATerminate() leaves nothing of its transactions, either. */
struct At_Exit {
    ~At_Exit() { Session_Table::instance().end_all(); }
} const at_exit;

bool is_failure(int code) {
    return code != BSA_RC_SUCCESS && code != BSA_RC_NO_MATCH && code != BSA_RC_NO_MORE_DATA;
}

/** One call: nothing that it throws or raises reaches the caller. */
template <typename Action>
int call(char const* name, Action action) noexcept {
    No_Sigpipe const guard;
    Xbsa_Result result;
    try {
        result = action();
        last_error = result.text();
        if (is_failure(result.code()))
            QMRT_LOG(LM_ERROR, "%s: %s\n", name, result.text().c_str());
        return result.code();
    } catch (std::exception const&) { // memory is short, even for words
        last_error.clear();
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
}

Xbsa_Result null_argument(char const* name) {
    return {BSA_RC_NULL_ARGUMENT, std::string(name) + " is null"};
}

/** A call on what holds a session. */
template <typename Action>
int with_session(char const* name, long handle, Action action) noexcept {
    return call(name, [&]() -> Xbsa_Result {
        auto const entry = Session_Table::instance().find(handle);
        if (!entry)
            return {BSA_RC_INVALID_HANDLE, "there is no such session"};
        std::lock_guard const guard(entry->in_use);
        if (!entry->session)
            return {BSA_RC_INVALID_HANDLE, "the session has ended"};
        return action(entry->session);
    });
}

/** A call on a session. */
template <typename Action>
int session_call(char const* name, long handle, Action action) noexcept {
    return with_session(name, handle, [&](auto& session) { return action(*session); });
}

/** Fills the service's preferences into a caller's block: any length, no header, no trailer. */
void offer(BSA_DataBlock32* block) {
    if (!block)
        return;
    block->bufferLen = 0;
    block->numBytes = 0;
    block->headerBytes = 0;
}

/** Where the data of a block stand; null for one that cannot be. */
char* data_of(BSA_DataBlock32 const& block) {
    bool const fits = block.bufferPtr && block.headerBytes <= block.bufferLen;
    return fits ? static_cast<char*>(block.bufferPtr) + block.headerBytes : nullptr;
}

Xbsa_Result invalid_block(char const* why) {
    return {BSA_RC_INVALID_DATABLOCK, why};
}

/** Copies the caller's keywords; false for more or longer ones than anybody has. */
bool read_environment(char** environment, std::vector<std::string>& texts) {
    for (size_t i = 0; environment && environment[i]; ++i) {
        size_t const length = strnlen(environment[i], MAX_ENVIRONMENT_TEXT);
        if (i == MAX_ENVIRONMENT || length == MAX_ENVIRONMENT_TEXT)
            return false;
        texts.emplace_back(environment[i], length);
    }
    return true;
}

bool is_owner(BSA_ObjectOwner const& owner) {
    std::string text;
    return xbsa_text(owner.bsa_ObjectOwner, text) && xbsa_text(owner.app_ObjectOwner, text);
}

/** Copies a text with its NUL into memory of a size, or says how much it takes. */
int give_text(std::string const& text, BSA_UInt32& size, char* memory) {
    auto const wanted = static_cast<BSA_UInt32>(text.size() + 1);
    bool const fits = memory && size >= wanted;
    size = wanted;
    if (!fits)
        return BSA_RC_BUFFER_TOO_SMALL;
    std::memcpy(memory, text.c_str(), wanted);
    return BSA_RC_SUCCESS;
}

Xbsa_Result open_session(long* handle, BSA_ObjectOwner const* owner, char** environment) {
    static constexpr BSA_ObjectOwner NOBODY = {};
    BSA_ObjectOwner const& known = owner ? *owner : NOBODY;
    std::vector<std::string> texts;
    if (!read_environment(environment, texts))
        return {BSA_RC_INVALID_ENV, "the environment is too large"};
    if (!is_owner(known))
        return {BSA_RC_INVALID_ENV, "the owner is a text without an end"};
    std::unique_ptr<Xbsa_Session> session;
    Xbsa_Result result = Xbsa_Session::open(known, std::move(texts), session);
    if (result)
        *handle = Session_Table::instance().add(std::move(session));
    return result;
}

} // namespace

int BSAInit(long* bsaHandle, BSA_SecurityToken*, BSA_ObjectOwner* objectOwner, char** environment) {
    xbsa_prepare_log();
    return call(__func__, [&] {
        return bsaHandle ? open_session(bsaHandle, objectOwner, environment)
                         : null_argument("bsaHandle");
    });
}

int BSATerminate(long bsaHandle) {
    return with_session(__func__, bsaHandle, [&](auto& session) -> Xbsa_Result {
        session.reset();
        Session_Table::instance().remove(bsaHandle);
        return {};
    });
}

int NBBSAUpdateEnv(BSA_Handle* bsaHandle, char** environment) {
    if (!bsaHandle || !environment)
        return call(__func__,
                    [&] { return null_argument(bsaHandle ? "environment" : "bsaHandle"); });
    return with_session(__func__, *bsaHandle, [&](std::unique_ptr<Xbsa_Session>& session) {
        std::vector<std::string> texts;
        if (!read_environment(environment, texts))
            return Xbsa_Result(BSA_RC_INVALID_ENV, "the environment is too large");
        std::unique_ptr<Xbsa_Session> changed;
        Xbsa_Result result = session->reopen(std::move(texts), changed);
        if (result)
            session = std::move(changed);
        return result;
    });
}

int BSABeginTxn(long bsaHandle) {
    return session_call(__func__, bsaHandle,
                        [](Xbsa_Session& session) { return session.begin_transaction(); });
}

int BSAEndTxn(long bsaHandle, BSA_Vote vote) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) -> Xbsa_Result {
        int const number = xbsa_number(vote);
        if (number != BSA_Vote_COMMIT && number != BSA_Vote_ABORT)
            return {BSA_RC_INVALID_VOTE, "the vote is neither to commit nor to abort"};
        return session.end_transaction(vote);
    });
}

int BSACreateObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor,
                    BSA_DataBlock32* dataBlock) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        if (!objectDescriptor)
            return null_argument("objectDescriptor");
        Xbsa_Result result = session.create(*objectDescriptor);
        if (result)
            offer(dataBlock);
        return result;
    });
}

int BSASendData(long bsaHandle, BSA_DataBlock32* dataBlock) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        if (!dataBlock)
            return null_argument("dataBlock");
        if (dataBlock->numBytes == 0)
            return session.send("", 0);
        char const* const data = data_of(*dataBlock);
        if (!data || dataBlock->numBytes > dataBlock->bufferLen - dataBlock->headerBytes)
            return invalid_block("the block is without memory, or its data are larger than that");
        return session.send(data, dataBlock->numBytes);
    });
}

int BSAEndData(long bsaHandle) {
    return session_call(__func__, bsaHandle,
                        [](Xbsa_Session& session) { return session.end_data(); });
}

int BSADeleteObject(long bsaHandle, BSA_UInt64 copyId) {
    return session_call(__func__, bsaHandle,
                        [&](Xbsa_Session& session) { return session.remove(copyId); });
}

int BSAQueryObject(long bsaHandle, BSA_QueryDescriptor* queryDescriptor,
                   BSA_ObjectDescriptor* objectDescriptor) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        if (!queryDescriptor || !objectDescriptor)
            return null_argument(queryDescriptor ? "objectDescriptor" : "queryDescriptor");
        return session.query(*queryDescriptor, *objectDescriptor);
    });
}

int BSAGetNextQueryObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        return objectDescriptor ? session.next_object(*objectDescriptor)
                                : null_argument("objectDescriptor");
    });
}

int BSAGetObject(long bsaHandle, BSA_ObjectDescriptor* objectDescriptor,
                 BSA_DataBlock32* dataBlock) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        if (!objectDescriptor)
            return null_argument("objectDescriptor");
        Xbsa_Result result = session.get(objectDescriptor->copyId);
        if (result)
            offer(dataBlock);
        return result;
    });
}

int BSAGetData(long bsaHandle, BSA_DataBlock32* dataBlock) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) {
        if (!dataBlock)
            return null_argument("dataBlock");
        char* const data = data_of(*dataBlock);
        if (!data || dataBlock->bufferLen == dataBlock->headerBytes)
            return invalid_block("the block has no memory for data");
        size_t got = 0;
        Xbsa_Result result =
            session.receive(data, dataBlock->bufferLen - dataBlock->headerBytes, got);
        dataBlock->numBytes = static_cast<BSA_UInt32>(got);
        return result;
    });
}

int BSAGetLastError(BSA_UInt32* size, char* error) {
    if (!size)
        return BSA_RC_NULL_ARGUMENT;
    if (!last_error.empty())
        return give_text(last_error, *size, error);
    *size = 0;
    return BSA_RC_SUCCESS;
}

int BSAGetEnvironment(long bsaHandle, BSA_ObjectOwner* objectOwner, char** environment) {
    return session_call(__func__, bsaHandle, [&](Xbsa_Session& session) -> Xbsa_Result {
        if (objectOwner)
            *objectOwner = session.owner();
        if (environment) {
            for (std::string const& text : session.environment())
                *environment++ = const_cast<char*>(text.c_str());
            *environment = nullptr;
        }
        return {};
    });
}

int BSAQueryApiVersion(BSA_ApiVersion* apiVersion) {
    return call(__func__, [&]() -> Xbsa_Result {
        if (!apiVersion)
            return null_argument("apiVersion");
        *apiVersion = {1, 1, 0};
        return {};
    });
}

int BSAQueryServiceProvider(BSA_UInt32* size, char* delimiter, char* provider) {
    return call(__func__, [&]() -> Xbsa_Result {
        if (!size)
            return null_argument("size");
        if (delimiter)
            *delimiter = DELIMITER;
        if (give_text(PROVIDER, *size, provider) == BSA_RC_SUCCESS)
            return {};
        return {BSA_RC_BUFFER_TOO_SMALL, "the name of the service takes more memory"};
    });
}
