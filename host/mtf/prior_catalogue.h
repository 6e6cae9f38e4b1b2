#ifndef HOST_MTF_PRIOR_CATALOGUE_H
#define HOST_MTF_PRIOR_CATALOGUE_H

#include "host/mtf/archive_store.h"
#include "host/mtf/catalogue.h"

#include <functional>

namespace MTF {

/**
 * What an incremental backup knows of the backup before. It is asked for names in the order of
 * entries and so reads the catalogue once, beside the walk through the sources. For one thread.
 */
class Prior_Catalogue {
public:
    /**
     * @param path_of  gives the name of an archive in the store by the number of its backup
     */
    Prior_Catalogue(Archive_Store& store, std::function<std::string(int64_t)> path_of)
        : store_(store), path_of_(std::move(path_of)) {}

    /**
     * Fetches the catalogue.
     * @return false, with a line that says why, when there is none or it is no use: then find()
     *         finds nothing
     */
    [[nodiscard]] bool open(std::string const& name);

    /** The entry of a name, when its archive is still there; null for none. */
    Catalogue_Entry const* find(std::string const& name);

    Catalogue_Archives const& archives() const { return reader_.summary().archives; }

private:
    [[nodiscard]] bool has_archive(int64_t seq);

    Archive_Store& store_;
    std::function<std::string(int64_t)> const path_of_;
    Catalogue_Reader reader_;
    Catalogue_Entry entry_;
    bool there_is_ = false;
    std::map<int64_t, bool> present_;
};

} // namespace MTF

#endif
