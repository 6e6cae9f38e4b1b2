#ifndef HOST_JOB_JOB_ALERT_H
#define HOST_JOB_JOB_ALERT_H

#include "json_spirit/value.h"

#include <string>
#include <string_view>

class Job;

/**
 * Raises an alert on a job through the Job_Backend.
 * @param job          a null pointer is a broken precondition
 * @param level        5: the run goes on, in another way than asked for; 7: it fails
 * @param code         what happened, within its level
 * @param detail_code  0: nothing more to say
 * @param detail       what the text may want to name; null for nothing
 * @param count        how often it happened
 */
void write_job_alert(Job const* job, unsigned long level, unsigned long code,
                     unsigned long detail_code, json_spirit::Value const& detail, long count);

/** The text of an alert for an operator; one that is not known shows its numbers. */
std::string job_alert_text(unsigned long level, unsigned long code);
/**
 * What an operator does next: with the words RUN, INSTANCE, POOL and BACKUP where the name of the
 * one concerned belongs. An unknown alert has the advice to read the log.
 */
std::string job_alert_advice(unsigned long level, unsigned long code);

/** Codes of the agent's own alerts, all of level 7; those below 100 are the module's. */
enum : unsigned long {
    ALERT_RUN_FAILED = 100, ///< for another reason than those of the other alerts
    ALERT_NOT_BEGUN = 101,
    ALERT_CUT_OFF = 117,
};

/**
 * Finds the alert for a line of a run's log that the module writes without an alert of its own.
 * @return false if the line is none of these
 */
[[nodiscard]] bool find_alert_of_line(std::string_view line, unsigned long& level,
                                      unsigned long& code);

#endif
