#ifndef HOST_MTF_SOURCE_WALKER_H
#define HOST_MTF_SOURCE_WALKER_H

#include "qmrt/file.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace MTF {

/** One thing found in a source. */
struct Source_Item {
    std::string name;   ///< of its entry
    std::string path;   ///< on this host
    struct stat status; ///< of a link itself, but for a source that is one

    int parent;       ///< directory that it stands in, AT_FDCWD for a source
    std::string base; ///< its name there
    bool is_source;
    std::optional<uid_t> owner = std::nullopt; ///< whose it has to be; anybody's without a value

    /** True where the item, by what an open descriptor says, may be read. */
    [[nodiscard]] bool may_be_read(struct stat const& opened) const {
        return !owner || opened.st_uid == *owner;
    }
    /**
     * Opens a regular file or a directory for reading, in the very directory where it was found, so
     * that nobody who swaps a directory for a link meanwhile can lead the reader elsewhere. Never
     * waits, not even for a FIFO that took the file's place.
     * @return nothing, with errno set, on a failure; what is opened may be another file than that
     *         of status: see may_be_read()
     */
    File_Descriptor open() const;
    /** The text of a symbolic link. @return false, with errno set */
    [[nodiscard]] bool read_link(std::string& text) const;
};

/** Who is shown the items. */
class Source_Visitor {
public:
    enum Next {
        GO_ON,
        PASS_OVER, ///< nothing that is below a directory
        STOP
    };

    virtual ~Source_Visitor() = default;
    virtual Next visit(Source_Item const& item) = 0;
    /** An item that cannot be looked at. */
    virtual void unreadable(std::string const& path, int error) = 0;
};

/**
 * The sources as they are to be walked: absolute and without "." or doubled slashes, in the order
 * of entries, each once, and none that stands below another.
 * @return false, with @a sources unchanged and the offender in @a bad, when one is not absolute, is
 *         the root, or has ".." in it
 */
[[nodiscard]] bool normalize_sources(std::vector<std::string>& sources, std::string& bad);

/**
 * Shows a source and all that is below it, in the order of compare_entry_names(). A source that is
 * a symbolic link is what the link points at; other links are not followed.
 * @param owner  with a value, not even that link is followed, and what belongs to another user is
 *               told as unreadable, with EPERM: the sources lie where that user can put anything
 * @return false when the visitor ended the walk
 */
[[nodiscard]] bool walk_source(std::string const& source, Source_Visitor& visitor,
                               std::optional<uid_t> owner = std::nullopt);

} // namespace MTF

#endif
