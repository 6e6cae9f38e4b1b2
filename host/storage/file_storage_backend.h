#ifndef HOST_STORAGE_FILE_STORAGE_BACKEND_H
#define HOST_STORAGE_FILE_STORAGE_BACKEND_H

#include "host/storage/storage_backend.h"

/**
 * Pools in a mounted file system: "file:///mnt/pool/folder", an object a file.
 *
 * An object is written under a name of its own beside its place, synced, renamed into place, and
 * its folder is synced. A writer that is not committed removes that file and the folders that it
 * made; what a killed process left is not listed, and goes when the next object is written into
 * that folder, no earlier than a day after its last change.
 *
 * What is made has mode 0600, folders 0700: see xbsa_folder.h for who enters what. A folder that
 * may be passed through and not be listed is passed through.
 *
 * Links below the pool folder are neither objects nor folders: they are BAD_NAME, are not listed
 * and never followed. The way to the pool folder itself may have links.
 */
class File_Storage_Backend : public Storage_Backend {
public:
    static constexpr char SCHEME[] = "file";

    Storage_Result connect(std::string const& url, Storage_Access const& access,
                           std::shared_ptr<Storage_Connection>& connection) override;
};

#endif
