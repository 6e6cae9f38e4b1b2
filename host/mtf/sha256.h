#ifndef HOST_MTF_SHA256_H
#define HOST_MTF_SHA256_H

#include <cstdint>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace MTF {

/** A running SHA-256 (FIPS 180-4). For one thread. */
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(Sha256 const&) = delete;
    Sha256& operator=(Sha256 const&) = delete;

    void update(void const* data, size_t size);
    /** Adds so many bytes of value 0, as the holes of a sparse file read. */
    void update_zeros(uint64_t size);
    /** The digest of all so far, 64 lower case hex digits, and begins anew. "" when OpenSSL fails.
     */
    std::string finish();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const;
    };
    void begin();

    std::unique_ptr<evp_md_ctx_st, Free> context_;
    bool good_ = false;
};

} // namespace MTF

#endif
