#ifndef XBSA_LIBRARY_XBSA_RESULT_H
#define XBSA_LIBRARY_XBSA_RESULT_H

#include "host/storage/storage_backend.h"
#include "xbsa/library/xbsa.h"

#include <string>

/** How a step of the library ended: a code of the API, and a text for the caller's log. */
class [[nodiscard]] Xbsa_Result {
public:
    Xbsa_Result() = default; ///< success
    Xbsa_Result(int code, std::string text) : code_(code), text_(std::move(text)) {}
    /** What became of a step in the pool. */
    Xbsa_Result(Storage_Result const& result)
        : code_(code_of(result.code())), text_(result.text()) {}

    explicit operator bool() const { return code_ == BSA_RC_SUCCESS; }
    int code() const { return code_; }
    /** Why it failed; "" on success. No secrets are in it. */
    std::string const& text() const { return text_; }

private:
    static int code_of(Storage_Result::Code code) {
        switch (code) {
        case Storage_Result::OK:
            return BSA_RC_SUCCESS;
        case Storage_Result::NOT_FOUND:
            return BSA_RC_OBJECT_NOT_FOUND;
        default:
            return BSA_RC_ABORT_SYSTEM_ERROR;
        }
    }

    int code_ = BSA_RC_SUCCESS;
    std::string text_;
};

#endif
