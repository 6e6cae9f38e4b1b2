#ifndef GAUSSDB_COMMON_TPOPS_RESTFUL_CLIENT_H
#define GAUSSDB_COMMON_TPOPS_RESTFUL_CLIENT_H

#include "gaussdb/common/tpops_defs.h"
#include "host/http/json_restful_client.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/**
 * The module's only door to TPOPS: logs in, sends every request with the user's mini token, logs in
 * again once when the platform refuses the token with 401 or 403, and knows each call that the
 * module makes. Waits for nothing and retries nothing else: a failure goes to the caller at once.
 *
 * A request ends with an error when the calling thread's Cancellation is cancelled.
 *
 * How a platform is verified and how long an answer may take is in Platform_Settings. Redirects are
 * not followed and answers are bounded in size.
 *
 * What the calls have in common:
 *
 * - A required text that is null or "" is logged as a broken precondition; nothing is sent.
 * - An instance id goes into paths. One that is not a plain id (names::fault_of_id()) is refused
 *   with an error line; nothing is sent.
 * - False is a failure that has been logged, without passwords and tokens.
 * - json_spirit::Error is thrown for an answer that should be an object or have a key and does not;
 *   each call says when. Callers catch it: the platform's answers are not trusted.
 *
 * One object is for one thread at a time; all share the tokens (see TPOPS_Token).
 */
class TPOPS_RESTful_Client {
public:
    TPOPS_RESTful_Client();

    /**
     * Logs in. Needed before anything else.
     * @return false when the platform gave no token; the token of an earlier login stays in use.
     *         Throws json_spirit::Error when the answer is JSON but not an object.
     */
    [[nodiscard]] bool connect(TPOPS_Login const& login);

    /** Whether there is a token for the user of connect(). */
    operator bool() const;
    /** The HTTP status of the last request; 0 when no whole answer came. */
    int status() const { return status_; }
    /** Why there was no whole answer, for messages; "" when there was one. */
    std::string const& fault() const { return fault_; }

    /** Without a token these return false, send nothing and log nothing. */
    [[nodiscard]] bool get(char const* path, json_spirit::Value& result);
    [[nodiscard]] bool put(char const* path, json_spirit::Value const& body,
                           json_spirit::Value* result);
    [[nodiscard]] bool post(char const* path, json_spirit::Value const& body,
                            json_spirit::Value* result);

    /**
     * Fills in one instance, and asks for its nodes with one more request. @a info stays as it was
     * if the platform does not know the instance. Throws when "instances" is absent.
     */
    [[nodiscard]] bool get_instance_info(char const* instance_id, TPOPS_Instance_Info& info);
    /**
     * Appends all instances of the platform, at most MAX_INSTANCES, each with one more request for
     * its nodes. After MAX_SILENT_COUNTS such requests in a row without an answer the nodes of the
     * others are not asked for; their counts are 0. Throws when "instances" is absent.
     */
    [[nodiscard]] bool get_instances_info(std::vector<TPOPS_Instance_Info>& infos);

    /** @param result  an object on true */
    [[nodiscard]] bool get_agent_status(char const* instance_id, json_spirit::Value& result);
    /** 0 for every failure. */
    int get_nodes_count(char const* instance_id);

    /**
     * Appends one page of the databases. Throws when "databases" is absent, and for a database
     * without one of its keys.
     * @param limit   databases on a page
     * @param offset  number of the page, 0 for the first
     * @param total   gets how many databases there are; 0 when the platform does not say
     */
    [[nodiscard]] bool list_databases(char const* instance_id, uint32_t limit, uint32_t offset,
                                      uint32_t& total, std::vector<TPOPS_Database_Info>& infos);
    /** All pages, at most MAX_PAGES. What was appended before a failure stays. */
    [[nodiscard]] bool list_databases(char const* instance_id,
                                      std::vector<TPOPS_Database_Info>& infos);

    /** A value that the platform keeps beside an instance. */
    [[nodiscard]] bool put_extend_info(char const* instance_id, char const* key, char const* value);
    /** @param result  of any type; "value" is in it */
    [[nodiscard]] bool get_extend_info(char const* instance_id, char const* key,
                                       json_spirit::Value& result);

    /**
     * Changes where the instance's backups go. Throws when the answer is not an object.
     * @param job_id  gets the job that does it; "" when there is nothing to change
     */
    [[nodiscard]] bool change_backup_media(char const* instance_id, char const* type,
                                           std::string& job_id);

    /** Starts a backup. @param result  an object on true */
    [[nodiscard]] bool create_backup(char const* instance_id, Backup_Args const& args,
                                     json_spirit::Value& result);
    /** @param job_id  gets the platform's job */
    [[nodiscard]] bool create_physical_backup(char const* instance_id, Backup_Args const& args,
                                              std::string& job_id);
    /** @param backup_id  gets the id of the backup: a log backup has no job */
    [[nodiscard]] bool create_log_backup(char const* instance_id, Backup_Args const& args,
                                         std::string& backup_id);
    [[nodiscard]] bool stop_backup(char const* instance_id, char const* job_id);

    /** @param begin_time, end_time  filter only together; may be null  @param result  of any type
     */
    [[nodiscard]] bool get_differential_backup_info(char const* instance_id,
                                                    json_spirit::Value& result,
                                                    char const* begin_time, char const* end_time);
    /** @param result  of any type */
    [[nodiscard]] bool get_backups_info(Backup_Info_Query const& query, json_spirit::Value& result);
    /** @param result  of any type */
    [[nodiscard]] bool create_restore(Restore_Args const& args, json_spirit::Value& result);
    /** @param result  of any type */
    [[nodiscard]] bool get_job_details(char const* job_id, json_spirit::Value& result);

    /** A value for a log line, truncated and without the secrets of this login. */
    std::string shown(json_spirit::Value const& value) const;

    static constexpr uint32_t MAX_LIMIT_SIZE = 100; ///< databases on a page
    static constexpr uint32_t MAX_PAGES = 1000;
    static constexpr size_t MAX_INSTANCES = 10'000;
    static constexpr int MAX_SILENT_COUNTS = 3;
    static constexpr size_t MAX_ANSWER_SIZE = 16 * 1024 * 1024; ///< bytes
    static constexpr size_t MAX_TOKEN_SIZE = 64 * 1024;         ///< bytes

protected:
    /** Sends any request: every call ends here. */
    [[nodiscard]] bool send_request(HTTP_Request& request, json_spirit::Value const* body,
                                    json_spirit::Value* result);

private:
    [[nodiscard]] bool connect();
    [[nodiscard]] bool send_request_i(HTTP_Request& request, HTTP_Response& response,
                                      json_spirit::Value const* body, json_spirit::Value* result);
    [[nodiscard]] bool read_instances(json_spirit::Object const& answer,
                                      std::function<void(json_spirit::Object const&)> const& take);
    void handle_instance_info(json_spirit::Object const& obj, TPOPS_Instance_Info& info);
    [[nodiscard]] bool get_backups_info_i(char const* instance_id, json_spirit::Value& result,
                                          char const* backup_id, char const* backup_type,
                                          char const* begin_time, char const* end_time);
    int32_t status_ = 200;
    std::string fault_;
    int silent_counts_ = 0; ///< requests for nodes in a row without an answer
    TPOPS_Login login_info_;
    std::string token_; ///< of the last request
    JSON_RESTful_Client client_{true};
};

#endif
