#ifndef AGENT_JOBS_TIME_ZONE_H
#define AGENT_JOBS_TIME_ZONE_H

#include <ctime>
#include <memory>
#include <string>

/** What clocks on the wall show: those of this host, or of a zone of the time zone database. */
class Time_Zone {
public:
    /** The host's zone: TZ or /etc/localtime, as tzset() has read it last. */
    Time_Zone() = default;

    /**
     * @param name  such as "Europe/Berlin"; "" for the host's zone
     * @return false, with @a result unchanged, if the database does not have it
     */
    [[nodiscard]] static bool find(std::string const& name, Time_Zone& result);

    /** "" for the host's zone. */
    std::string const& name() const { return name_; }
    /** How far its clocks are ahead of UTC at a time, in seconds. */
    time_t offset_at(time_t time) const;

private:
    struct Rules;

    std::string name_;
    std::shared_ptr<Rules const> rules_; ///< null for the host's zone
};

#endif
