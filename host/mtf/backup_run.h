#ifndef HOST_MTF_BACKUP_RUN_H
#define HOST_MTF_BACKUP_RUN_H

#include "host/mtf/archive_writer.h"
#include "host/mtf/prior_catalogue.h"

#include <functional>
#include <map>
#include <utility>

namespace MTF {

/** Walks through the sources, and saves what is to be saved into one archive. For one thread. */
class Backup_Run : private Source_Visitor {
public:
    /**
     * @param seq    number of this backup
     * @param prior  null to save everything
     * @param clock  the time in nanoseconds since the epoch
     */
    Backup_Run(Archive_Writer& writer, Catalogue_Writer& catalogue, Work_Report& report,
               int64_t seq, Prior_Catalogue* prior, std::function<int64_t()> clock)
        : writer_(writer),
          catalogue_(catalogue),
          report_(report),
          seq_(seq),
          prior_(prior),
          clock_(std::move(clock)) {}

    /**
     * @param sources  as normalize_sources() gives them
     * @param owner    see walk_source()
     * @return a failure has been logged
     */
    Error_Code run(std::vector<std::string> const& sources,
                   std::optional<uid_t> owner = std::nullopt);

private:
    using File_Id = std::pair<dev_t, ino_t>;
    struct Names {
        std::string first; ///< the name under which the file was saved
        nlink_t left;      ///< names that may still come
    };

    Next visit(Source_Item const& item) override;
    void unreadable(std::string const& path, int error) override;
    Next save(Source_Item const& item, std::string const& hard_link);
    Next add(Catalogue_Entry const& entry);
    std::string saved_name(Source_Item const& item);
    void remember_name(Source_Item const& item);
    Catalogue_Entry const* unchanged(Source_Item const& item, std::string const& hard_link);

    Archive_Writer& writer_;
    Catalogue_Writer& catalogue_;
    Work_Report& report_;
    int64_t const seq_;
    Prior_Catalogue* const prior_;
    std::function<int64_t()> const clock_;
    std::map<File_Id, Names> names_;
    Error_Code code_ = E_OK;
};

} // namespace MTF

#endif
