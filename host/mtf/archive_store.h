#ifndef HOST_MTF_ARCHIVE_STORE_H
#define HOST_MTF_ARCHIVE_STORE_H

#include <memory>
#include <string>
#include <sys/types.h>

namespace MTF {

/**
 * Where archives and catalogues are kept, by names as mtf_path() gives them. For one thread; its
 * outputs and inputs must not outlive it. The operations log nothing: error() says what went wrong.
 */
class Archive_Store {
public:
    /** One object being written; nothing of it is to be seen before commit(). */
    class Output {
    public:
        /** Drops what was not committed. */
        virtual ~Output() = default;
        [[nodiscard]] virtual bool write(void const* data, size_t size) = 0;
        /** Makes the object appear, whole, in place of one of the same name. */
        [[nodiscard]] virtual bool commit() = 0;
    };

    /** One object being read, front to back. */
    class Input {
    public:
        virtual ~Input() = default;
        /** Up to @a size bytes; 0 at the end, -1 on a failure. */
        virtual ssize_t read(void* buffer, size_t size) = 0;
    };

    enum Presence { PRESENT, ABSENT, UNKNOWN };

    virtual ~Archive_Store() = default;

    /** Null on a failure. */
    virtual std::unique_ptr<Output> create(std::string const& name) = 0;
    /** Null on a failure. @param presence  ABSENT when that is the reason */
    virtual std::unique_ptr<Input> open(std::string const& name, Presence& presence) = 0;
    virtual Presence look(std::string const& name) = 0;
    /** False when the object is still there; one that was not there is a success. */
    [[nodiscard]] virtual bool remove(std::string const& name) = 0;

    /** What the last failure, also of an output or input, was. Holds no secrets. */
    std::string const& error() const { return error_; }

protected:
    std::string error_;
};

} // namespace MTF

#endif
