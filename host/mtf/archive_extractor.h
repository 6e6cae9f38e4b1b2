#ifndef HOST_MTF_ARCHIVE_EXTRACTOR_H
#define HOST_MTF_ARCHIVE_EXTRACTOR_H

#include "host/mtf/archive_store.h"
#include "host/mtf/catalogue.h"
#include "host/mtf/work_report.h"

#include <vector>

struct archive;
struct archive_entry;

namespace MTF {

/**
 * Puts entries of archives back into a folder, with their owners (as root), modes, times, extended
 * attributes, access control lists and holes.
 *
 * Nothing is written outside of the folder: names are checked, and no link on the way down from it
 * is followed, be it an entry of the archive or something that stood there before; such an entry is
 * left out and told. Only what the catalogue tells of is restored, and only what it says: the kind
 * of each entry, its size and the SHA-256 of its content are compared, and a file that differs is
 * removed again. For one thread.
 */
class Archive_Extractor {
public:
    /**
     * @param folder  an absolute path without links in it; it exists
     * @param store   where the inputs come from
     */
    Archive_Extractor(std::string const& folder, Archive_Store& store, Work_Report& report);
    ~Archive_Extractor();
    Archive_Extractor(Archive_Extractor const&) = delete;
    Archive_Extractor& operator=(Archive_Extractor const&) = delete;

    [[nodiscard]] bool open();

    /**
     * Restores from one archive. A failure has been logged, with the place in the archive.
     * @param catalogue  is read from its begin
     * @param seq        the archive's number: entries of others are passed over
     * @param below      restore only this entry and what is below it; "" for all
     * @return E_OK; E_CORRUPT; E_OPEN_MEDIA when the store stops giving data; E_FAILED when the
     *         folder takes no more, or when the work was canceled, which is not logged
     */
    Error_Code extract(Archive_Store::Input& input, Catalogue_Reader& catalogue, int64_t seq,
                       std::string const& below);

    /** After the last archive: gives directories their times and modes. */
    [[nodiscard]] bool close();

private:
    struct Free {
        void operator()(archive* object) const;
    };
    struct Source; ///< the archive being read
    class Wanted;  ///< what is to be restored of it

    Error_Code walk(Source& source, Wanted& wanted);
    Error_Code extract_entry(Source& source, archive_entry* header, Catalogue_Entry const& entry);
    [[nodiscard]] bool matches(archive_entry* header, Catalogue_Entry const& entry) const;
    Error_Code extract_content(Source& source, Catalogue_Entry const& entry,
                               std::string const& path);
    Error_Code write_blocks(Source& source, Catalogue_Entry const& entry, std::string const& path,
                            Sha256& sha256);
    Error_Code check_rest(Source& source, Catalogue_Archive const& expected);
    /** E_CORRUPT, or E_OPEN_MEDIA when it is the store that failed. */
    Error_Code corrupt(Source const& source, std::string const& what);
    std::string error_of_disk() const;

    std::string const folder_;
    Archive_Store& store_;
    Work_Report& report_;
    std::unique_ptr<archive, Free> disk_;
};

} // namespace MTF

#endif
