#ifndef AGENT_CATALOG_RECORDED_SET_H
#define AGENT_CATALOG_RECORDED_SET_H

#include "host/catalog/backup_set.h"

/**
 * A set as another agent dumped it. Of the record's fields only the uuid and the kind are filled;
 * dump() gives back everything as it came.
 */
class Recorded_Set : public Backup_Set {
public:
    /** @param dump  what Backup_Set::dump() gave; without a text under "uuid" the uuid is "" */
    Recorded_Set(std::string const& kind, json_spirit::Object dump);

    json_spirit::Object dump() const override { return dump_; }

private:
    json_spirit::Object dump_;
};

#endif
