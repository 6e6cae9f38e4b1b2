#ifndef HOST_MTF_ERROR_CODE_H
#define HOST_MTF_ERROR_CODE_H

namespace MTF {

/** How the work on an archive ended, or what was wrong with one entry. The numbers are kept. */
enum Error_Code {
    E_FAILED = -1,
    E_OK = 0,
    E_SKIP,                   ///< one entry was left out
    E_CORRUPT,                ///< an archive or a catalogue is not what was written
    E_NOT_FOUND,              ///< there is no such archive, catalogue or entry
    E_UNKNOWN_NT_STREAM,      ///< an entry of a kind that archives of this system do not hold
    E_MKDIR,                  ///< the folder to restore into cannot be made
    E_UPLOAD_MTF_FILE_ERROR,  ///< the written archive could not be committed to its pool
    E_DOWNLOAD_CAT_ERROR,     ///< a catalogue could not be fetched
    E_GET_SOURCE_DATA,        ///< a source cannot be read
    E_WRITE_TO_STORAGE,       ///< the pool did not take the archive's data
    E_ADD_TO_CATALOG,         ///< the catalogue could not be written
    E_OPEN_MEDIA,             ///< an archive could not be opened
    E_GET_POOL_INFO,          ///< the pool is not known, or cannot be connected
    E_NO_FILES_BACKUPED,      ///< there was nothing to back up, or nothing of it could be read
    E_END_WITH_SKIPPED_FILES, ///< done, but for entries that were told one by one
    E_NO_FILES_RESTORED       ///< the archive holds nothing of what was asked for
};

/** What a code means, in words for a log; never null. */
char const* error_text(Error_Code code);

} // namespace MTF

#endif
