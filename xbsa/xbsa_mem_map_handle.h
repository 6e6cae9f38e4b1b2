#ifndef XBSA_XBSA_MEM_MAP_HANDLE_H
#define XBSA_XBSA_MEM_MAP_HANDLE_H

#include "qmrt/mem_map_handle.h"

#include <cstdint>
#include <optional>

/**
 * What a counter file begins with. The XBSA library counts here what passes through it, and the job
 * that made the file reads how far it has come. The file has no magic number: both sides agree on
 * 4096 bytes in the byte order of the machine, of which these are the first 24.
 *
 * Each count is one aligned word, which a reader takes as it finds it. Writers add to it in one
 * step, because there may be many.
 */
struct Xbsa_Info {
    uint64_t current_size;  ///< bytes handled so far
    uint64_t original_size; ///< of the data before reduction
    uint64_t storage_size;  ///< of the data as stored
};
static_assert(sizeof(Xbsa_Info) == 24);

/** The directory of the counter files, which is that of the policy files too. */
struct Xbsa_Info_Path_Conf {
    static constexpr char prefix[] = "/var/cache/quilmot/zenbrak3/gaussdb";
};

/** The length of a counter file. */
constexpr size_t XBSA_INFO_FILE_SIZE = 4096;

/**
 * A counter file: "<policy name>_act" beside the policy. One object is for one thread at a time,
 * and the destructor unmaps the file and leaves it where it is.
 */
class Xbsa_Mem_Map_Handle
    : public Mem_Map_Handle<Xbsa_Info, Xbsa_Info_Path_Conf, XBSA_INFO_FILE_SIZE> {
public:
    /**
     * Opens a counter file, or makes one of zeros, maps it, and gives it to a user. An existing
     * file keeps its counts.
     * @param owner  the user's name; null or "" leaves the owner, and so does a user that is not
     *               known or a file that cannot be given away: the counts are useful all the same
     * @return 0, or -1 after an error line
     */
    int open(char const* path, char const* owner);
    /**
     * Reads the first count from the file. The file's owner can truncate it, and access to the
     * mapped record would then kill this process.
     * @return empty if no file is open, or if it is too short
     */
    std::optional<uint64_t> current_size() const;
    /** Whether a file is open and has the whole record. */
    [[nodiscard]] bool is_whole() const;
};

#endif
