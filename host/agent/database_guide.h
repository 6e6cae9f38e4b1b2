#ifndef HOST_AGENT_DATABASE_GUIDE_H
#define HOST_AGENT_DATABASE_GUIDE_H

#include "host/agent/instance.h"
#include "host/agent/instance_check.h"

#include <string>
#include <utility>
#include <vector>

/** A kind of database that a module protects, and what can be done with it. Texts are for people.
 */
struct Database_Flavour {
    int code = 0;       ///< "version" of an instance's record and "series" of its backups
    std::string name;   ///< for tables, "DWS"
    std::string title;  ///< for sentences, "GaussDB DWS"
    std::string access; ///< "on its own hosts", "over ssh", "through its platform"
    std::vector<std::string> levels;          ///< of its backups: "full", "incremental"
    std::vector<std::string> parts;           ///< what can be backed up beside whole instances
    std::vector<std::string> restores;        ///< what can be restored: "instance", "table", "time"
    std::vector<std::string> backup_options;  ///< which a definition may have
    std::vector<std::string> restore_options; ///< the same for restores
    json_spirit::Object usual_options;        ///< which a command adds if they are absent
};

/** What becomes of a backup, as far as it can be told before it runs. */
struct Backup_Outlook {
    std::string refusal; ///< why it would fail; "" if nothing is in its way
    std::string advice;  ///< what to do then
    std::string note;    ///< what is worth to know before; "" for nothing
};

/** What is lost by something that is asked for. Texts are for people; "" for the usual ones. */
struct Loss {
    std::string title; ///< what happens, a sentence
    std::string lost;  ///< what is lost
    /** Label and text of what is worth to know besides. */
    std::vector<std::pair<std::string, std::string>> lines;
};

/**
 * What a module says of the databases that it protects. An agent needs it to know no database
 * itself. It is optional: a module without the pair _make_Database_Guide is used all the same, and
 * the agent says what it cannot tell. The operations may be called on any thread.
 */
class Database_Guide {
public:
    /** How much of an instance check() looks at. */
    enum Check_Scope {
        TO_DECLARE, ///< whether it can be reached, and what it is
        TO_BACK_UP  ///< all that a backup needs, where the instance is and on this host
    };
    struct Identity {
        int flavour = 0;     ///< a code of flavours(); 0 if the record does not say
        std::string edition; ///< version of the database, "8.1.1"; "" if it does not say
    };

    virtual ~Database_Guide() = default;
    /** 0 or -1. */
    virtual int init(int, char**) { return 0; }
    virtual int fini() { return 0; }

    virtual std::vector<Database_Flavour> flavours() const = 0;
    /** Reads an instance's record. */
    virtual Identity identify(Instance const& instance) const = 0;
    /** Why an instance's record cannot have an option; "" if it can. */
    virtual std::string fault_of_option(std::string const& key, std::string const& value) const = 0;
    /**
     * Looks at all that jobs of an instance need and the agent cannot know. Runs tools as the
     * instance's own user, and changes nothing. Tools end when the calling thread's work is
     * cancelled.
     * @param instance  with the accounts to be looked at alone; need not be on record
     */
    virtual std::vector<Instance_Check> check(Instance const& instance, Check_Scope scope) = 0;
    /**
     * @param level   of the backup
     * @param usable  the instance's backups in the pool of the backup that others can build on
     */
    virtual Backup_Outlook outlook(Instance const& instance, std::string const& pool,
                                   std::string const& level,
                                   json_spirit::Array const& usable) const = 0;
    /** What a backup holds: label and text of each line. */
    virtual std::vector<std::pair<std::string, std::string>>
    contents(json_spirit::Object const& set) const = 0;
    /**
     * What a restore of a backup loses.
     * @param target  instance's name
     * @param tables  that are wished for alone; empty for all
     */
    virtual Loss restore_loss(json_spirit::Object const& set, std::string const& target,
                              std::vector<std::string> const& tables) const = 0;
    /** What is lost with a backup. @param others  of its instance, newest first, with itself */
    virtual Loss backup_loss(json_spirit::Object const& set,
                             json_spirit::Array const& others) const = 0;
    /** What is lost when an instance is taken off the record. */
    virtual Loss instance_loss(Instance const& instance) const = 0;
};

#endif
