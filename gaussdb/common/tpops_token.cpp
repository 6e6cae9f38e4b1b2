#include "gaussdb/common/tpops_token.h"

#include "json_spirit/secure_string.h"
#include "qmrt/check.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <mutex>
#include <new>

namespace {

std::mutex token_cache_mutex;
TPOPS_Token* token_cache = nullptr; ///< guarded by token_cache_mutex

void wipe(std::string& token) {
    secure_memset(token.data(), 0, token.size());
}

} // namespace

TPOPS_Token* TPOPS_Token::instance() {
    std::lock_guard const guard(token_cache_mutex);
    if (!token_cache && !(token_cache = new (std::nothrow) TPOPS_Token))
        errno = ENOMEM;
    return token_cache;
}

void TPOPS_Token::close_instance() {
    std::lock_guard const guard(token_cache_mutex);
    delete token_cache;
    token_cache = nullptr;
}

void TPOPS_Token_fini() {
    TPOPS_Token::close_instance();
}

TPOPS_Token::~TPOPS_Token() {
    for (auto& [user, token] : tokens_)
        wipe(token);
}

void TPOPS_Token::set_token(char const* user, char const* token) {
    if (!user || !*user || !token || !*token)
        return;
    ACE_GUARD(ACE_Thread_Mutex, guard, lock_);
    std::string& entry = tokens_[user];
    wipe(entry);
    entry = token;
}

std::string TPOPS_Token::get_token(char const* user) {
    if (QMRT_IS_NULL_OR_EMPTY(user))
        return "";
    ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, lock_, "");
    auto const found = tokens_.find(user);
    return found == tokens_.end() ? std::string() : found->second;
}
