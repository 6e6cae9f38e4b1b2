#ifndef HOST_JOB_JOB_ALERT_H
#define HOST_JOB_JOB_ALERT_H

#include "json_spirit/value.h"

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

#endif
