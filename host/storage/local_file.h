#ifndef HOST_STORAGE_LOCAL_FILE_H
#define HOST_STORAGE_LOCAL_FILE_H

#include "host/storage/storage_backend.h"
#include "qmrt/file.h"

/** The result for a local file that could not be used: "<what> '<path>': <text of the error>". */
Storage_Result local_errno(char const* what, std::string const& path, int error);

/**
 * Renames a file within a directory, or by paths with AT_FDCWD; something there is EEXIST. Where
 * the file system cannot do that in one step it takes two, with both names there in between.
 * @return 0, or -1 with errno
 */
int rename_without_replacing(int directory, char const* from, char const* to);

/**
 * A local file that a transfer writes: it comes under a name of its own beside its place, and takes
 * its place, synced, at commit(). Nothing stays of one that is not committed, and what stood in its
 * place is still there then.
 */
class Local_File {
public:
    ~Local_File() { abort(); }

    /**
     * @param flags  of open(2): without O_CREAT the file must be there, with O_EXCL it must not.
     *               A directory, device or pipe in the place is refused; a link is replaced, not
     *               followed. The mode of a file that is replaced is kept, a new one's is 0640.
     */
    Storage_Result open(std::string const& path, int flags);
    Storage_Result write(void const* data, size_t size);
    Storage_Result commit();

private:
    void abort();

    std::string path_;
    std::string temporary_; ///< "" when there is none (any more)
    File_Descriptor file_;
    bool exclusive_ = false;
};

#endif
