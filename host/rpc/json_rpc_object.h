#ifndef HOST_RPC_JSON_RPC_OBJECT_H
#define HOST_RPC_JSON_RPC_OBJECT_H

#include "json_spirit/value.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

/** Codes of errors (JSON-RPC 2.0, 5.1); those from -32099 to -32000 are our own. */
enum {
    JSON_RPC_PARSE_ERROR = -32700,
    JSON_RPC_INVALID_REQUEST = -32600,
    JSON_RPC_METHOD_NOT_FOUND = -32601,
    JSON_RPC_INVALID_PARAMS = -32602,
    JSON_RPC_INTERNAL_ERROR = -32603,
    JSON_RPC_BUSY = -32000,        ///< too many requests wait, or the server is ending
    JSON_RPC_UNREACHABLE = -32001, ///< nobody to ask, or the connection broke
    JSON_RPC_TIMEOUT = -32002      ///< no reply in time
};

/** One message of JSON-RPC 2.0. One object is for one thread at a time. */
class JSON_RPC_Object {
public:
    /** The numbers are fixed: handlers compare with them. */
    enum Type {
        TYPE_NONE = 0, ///< no message
        TYPE_NOTIFY = 1,
        TYPE_REQUEST = 2,
        TYPE_RESPONSE = 3,
        TYPE_RESPONSE_ERROR = 4
    };

    JSON_RPC_Object() = default;
    virtual ~JSON_RPC_Object() = default;

    Type type() const { return type_; }

    /** The message as it goes over the wire; null for TYPE_NONE. */
    json_spirit::Value value() const;

    /**
     * Its text. A response that is nested too deeply to be written becomes the text of an error, so
     * that who waits for it gets an answer; any other such message becomes "".
     */
    std::string text() const;

    /** Keeps something as long as this message: what its memory counts against, for example. */
    void hold(std::shared_ptr<void> held) { held_ = std::move(held); }
    std::shared_ptr<void> const& held() const { return held_; }

protected:
    explicit JSON_RPC_Object(Type type) : type_(type) {}

    /** Adds the message's members, without "jsonrpc". */
    virtual void fill_i(json_spirit::Object& members) const;
    /** What text() gives for a message that cannot be written. */
    virtual std::string substitute_i() const;

private:
    Type type_ = TYPE_NONE;
    std::shared_ptr<void> held_;
};

/** A message object that several hold. */
using JSON_RPC_Object_var = ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex>;

/** Tells something and wants no reply. */
class JSON_RPC_Notify : public JSON_RPC_Object {
public:
    JSON_RPC_Notify(std::string method, json_spirit::Value params)
        : JSON_RPC_Notify(TYPE_NOTIFY, std::move(method), std::move(params)) {}

    std::string const& method() const { return method_; }
    /** Null when there are none. Of any kind: what a method takes is for its handler to say. */
    json_spirit::Value const& params() const { return params_; }
    json_spirit::Value& params() { return params_; }

protected:
    JSON_RPC_Notify(Type type, std::string method, json_spirit::Value params)
        : JSON_RPC_Object(type), method_(std::move(method)), params_(std::move(params)) {}
    void fill_i(json_spirit::Object& members) const override;

private:
    std::string method_;
    json_spirit::Value params_;
};

/** Wants a reply; it is told by its id, a string, a number or null. */
class JSON_RPC_Request : public JSON_RPC_Notify {
public:
    JSON_RPC_Request(json_spirit::Value id, std::string method, json_spirit::Value params)
        : JSON_RPC_Notify(TYPE_REQUEST, std::move(method), std::move(params)), id_(std::move(id)) {}

    json_spirit::Value const& id() const { return id_; }

protected:
    void fill_i(json_spirit::Object& members) const override;

private:
    json_spirit::Value id_;
};

/** The reply to a request that succeeded. */
class JSON_RPC_Response : public JSON_RPC_Object {
public:
    /** With the id of @a request, which may be null, and a null result. */
    explicit JSON_RPC_Response(JSON_RPC_Request const* request)
        : JSON_RPC_Response(request ? request->id() : json_spirit::Value(), {}) {}
    JSON_RPC_Response(json_spirit::Value id, json_spirit::Value result)
        : JSON_RPC_Object(TYPE_RESPONSE), id_(std::move(id)), result_(std::move(result)) {}

    json_spirit::Value const& id() const { return id_; }
    json_spirit::Value const& result() const { return result_; }
    json_spirit::Value& result() { return result_; }
    void result(json_spirit::Value value) { result_ = std::move(value); }

protected:
    void fill_i(json_spirit::Object& members) const override;
    std::string substitute_i() const override;

private:
    json_spirit::Value id_;
    json_spirit::Value result_;
};

/** The reply to a request that failed. */
class JSON_RPC_Response_Error : public JSON_RPC_Object {
public:
    JSON_RPC_Response_Error(int code, json_spirit::Value id, std::string message,
                            json_spirit::Value data)
        : JSON_RPC_Object(TYPE_RESPONSE_ERROR),
          code_(code),
          id_(std::move(id)),
          message_(std::move(message)),
          data_(std::move(data)) {}

    int code() const { return code_; }
    json_spirit::Value const& id() const { return id_; }
    std::string const& message() const { return message_; }
    json_spirit::Value const& data() const { return data_; }

protected:
    void fill_i(json_spirit::Object& members) const override;
    std::string substitute_i() const override;

private:
    int code_;
    json_spirit::Value id_;
    std::string message_;
    json_spirit::Value data_;
};

/** What one text held. */
struct JSON_RPC_Message {
    bool batch = false;                       ///< the replies go back as one array, too
    std::vector<JSON_RPC_Object_var> objects; ///< the messages, in their order
    std::vector<JSON_RPC_Object_var> faults;  ///< the errors to send back for what was none
};

/**
 * Reads a text: one message or a batch. What is no JSON gives the one fault -32700; an empty batch,
 * and each thing that is no message, the fault -32600, with the thing's id if it has a good one.
 * Messages of a batch beside a faulty one count.
 *
 * A message has "jsonrpc": "2.0" and either a "method", a string, or an "id" with one of "result"
 * and "error", the last with a whole number "code" and a string "message". An id is a string, a
 * number or null. Other members are passed over.
 * @return true when there is no fault. Logs nothing.
 */
bool parse_json_rpc(std::string_view text, JSON_RPC_Message& message);

/** The text of a batch, or of its only message when @a batch is false; "" for no messages. */
std::string json_rpc_text(std::vector<JSON_RPC_Object_var> const& objects, bool batch);

#endif
