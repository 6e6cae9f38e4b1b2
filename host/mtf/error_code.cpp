#include "host/mtf/error_code.h"

namespace MTF {

char const* error_text(Error_Code code) {
    switch (code) {
    case E_FAILED:
        return "failed";
    case E_OK:
        return "success";
    case E_SKIP:
        return "left out";
    case E_CORRUPT:
        return "archive is corrupt";
    case E_NOT_FOUND:
        return "not found";
    case E_UNKNOWN_NT_STREAM:
        return "entry of an unknown kind";
    case E_MKDIR:
        return "cannot make the directory";
    case E_UPLOAD_MTF_FILE_ERROR:
        return "cannot commit the archive";
    case E_DOWNLOAD_CAT_ERROR:
        return "cannot fetch the archive's catalogue";
    case E_GET_SOURCE_DATA:
        return "cannot read the source";
    case E_WRITE_TO_STORAGE:
        return "cannot write to the storage";
    case E_ADD_TO_CATALOG:
        return "cannot write the archive's catalogue";
    case E_OPEN_MEDIA:
        return "cannot open the archive";
    case E_GET_POOL_INFO:
        return "cannot access the pool";
    case E_NO_FILES_BACKUPED:
        return "no files were backed up";
    case E_END_WITH_SKIPPED_FILES:
        return "ended with files left out";
    case E_NO_FILES_RESTORED:
        return "no files were restored";
    }
    return "unknown error";
}

} // namespace MTF
