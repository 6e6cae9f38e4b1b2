#ifndef GAUSSDB_COMMON_TPOPS_TOKEN_H
#define GAUSSDB_COMMON_TPOPS_TOKEN_H

#include <ace/Thread_Mutex.h>

#include <string>
#include <unordered_map>

/**
 * The process's cache of mini tokens, by the platform's user. A token has no age: it stays until a
 * newer one of the same user replaces it. Two platforms with the same user name share one entry; a
 * token of the other platform is refused there, and TPOPS_RESTful_Client then logs in again.
 * Thread-safe.
 */
class TPOPS_Token {
public:
    /** The singleton; null, with ENOMEM, if memory is exhausted. */
    static TPOPS_Token* instance();
    /** Deletes the singleton; no thread may still use it. instance() then makes a new one. */
    static void close_instance();

    TPOPS_Token() = default;
    ~TPOPS_Token();
    TPOPS_Token(TPOPS_Token const&) = delete;
    TPOPS_Token& operator=(TPOPS_Token const&) = delete;

    /** No-op when either is null or "". */
    void set_token(char const* user, char const* token);
    /** "" when the user has none. */
    std::string get_token(char const* user);

private:
    std::unordered_map<std::string, std::string> tokens_; ///< guarded by lock_
    ACE_Thread_Mutex lock_;
};

/** Closes the singleton when the module is unloaded. */
void TPOPS_Token_fini();

#endif
