#ifndef XBSA_LIBRARY_XBSA_DIGEST_H
#define XBSA_LIBRARY_XBSA_DIGEST_H

#include <cstddef>
#include <memory>
#include <string>

struct XXH3_state_s;

/**
 * A running 128-bit XXH3, by which damage to an object's content is found. It is no protection
 * against somebody who can write to the pool, but neither would be a slower one: he could write the
 * digest, too. For one thread.
 */
class Xbsa_Digest {
public:
    Xbsa_Digest();
    ~Xbsa_Digest();
    Xbsa_Digest(Xbsa_Digest const&) = delete;
    Xbsa_Digest& operator=(Xbsa_Digest const&) = delete;

    void update(void const* data, size_t size);
    /** The digest of all so far in its canonical form, 32 lower case hex digits. */
    std::string text() const;

private:
    struct Free {
        void operator()(XXH3_state_s* state) const;
    };
    std::unique_ptr<XXH3_state_s, Free> const state_;
};

#endif
