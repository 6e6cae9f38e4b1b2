#ifndef GAUSSDB_JOB_GAUSSDB_EVENT_HANDLER_H
#define GAUSSDB_JOB_GAUSSDB_EVENT_HANDLER_H

#include "host/mtf/event_handler.h"

/**
 * Hears what happens while the backup tool's metadata is archived or comes back. The archives are
 * small and their service logs what it leaves out, so there is nothing to report or to cancel.
 */
class GaussDB_Event_Handler : public MTF::Event_Handler {
public:
    GaussDB_Event_Handler() : MTF::Event_Handler(MTF::PROGRESS_REPORT_NONE) {}
};

#endif
