#ifndef HOST_STORAGE_RATE_LIMITS_H
#define HOST_STORAGE_RATE_LIMITS_H

#include "json_spirit/value.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/**
 * One limit of a transfer's speed, for the whole day or for some hours of every day.
 *
 * Text form: "10485760" is 10 MiB a second at any time, "08:00-18:00=1048576" 1 MiB a second from
 * eight to six, local time, and "22:00-06:00=0" no limit at night. A time is HH:MM in 24 hours; an
 * end of "24:00" is midnight. A window that begins and ends at the same time is refused.
 */
struct Rate_Control_Entry {
    uint64_t bytes_per_second = 0; ///< 0: no limit
    int begin = 0;                 ///< minutes of the local day, 0 to 1439
    int end = 0;                   ///< first minute behind, up to 1440; same as begin: whole day

    /** True when the entry holds at a minute of the local day; a window may run over midnight. */
    [[nodiscard]] bool applies(int minute_of_day) const;
    std::string to_string() const;
    /** @return false, with @a entry unchanged, for any text but the two forms above. */
    [[nodiscard]] static bool from_string(std::string_view text, Rate_Control_Entry& entry);
};

/** Limits in the order in which they are asked: the first that applies counts. */
using Rate_Control_Entries = std::vector<Rate_Control_Entry>;

/** The bytes a second that are allowed at a minute of the day; 0 when nothing limits them. */
uint64_t rate_at(Rate_Control_Entries const& entries, int minute_of_day);

/** The entries' texts joined by @a separator; "" for none. */
std::string rate_entries_to_string(Rate_Control_Entries const& entries, char separator);

/** Reads such a text. @return false, with @a entries unchanged, when one of the texts is not valid.
 */
[[nodiscard]] bool rate_entries_from_string(std::string_view text, char separator,
                                            Rate_Control_Entries& entries);

/**
 * The limits of a job: on what is read from the source of a transfer and on what is written to its
 * destination. For a put the source is the local file and the destination the pool; for a get it is
 * the other way round. Bytes count as they pass there: in a pool they are the compressed ones.
 */
class Rate_Limits {
public:
    /** The keys under which the limits travel in JSON objects. */
    static constexpr char dest_key[] = "dest_rate_limits";
    static constexpr char src_key[] = "src_rate_limits";

    Rate_Control_Entries dest;
    Rate_Control_Entries src;

    /**
     * Writes both lists into @a object, each as one text under its key.
     * @param skip_empty  leave out the key of an empty list; else it holds ""
     */
    void to_string_in_object(json_spirit::Object& object, char separator, bool skip_empty) const;

    /**
     * Reads what to_string_in_object wrote. A key that is not there gives an empty list.
     * @return false, with the limits unchanged, when a value is no text or not valid; logs nothing.
     */
    [[nodiscard]] bool from_string_in_object(json_spirit::Object const& object, char separator);

    /**
     * Divides every limit by the number of channels that share it, to no less than one byte a
     * second. 0 counts as 1.
     */
    void set_rate_limits_by_channels(unsigned long channels);
};

#endif
