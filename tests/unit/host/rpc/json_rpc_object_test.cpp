#include "host/rpc/json_rpc_object.h"

#include "json_spirit/text.h"

#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** The only message in a text without faults. */
JSON_RPC_Object_var parsed(std::string const& text) {
    JSON_RPC_Message message;
    EXPECT_TRUE(parse_json_rpc(text, message)) << text;
    EXPECT_FALSE(message.batch);
    EXPECT_EQ(1u, message.objects.size()) << text;
    return message.objects.empty() ? JSON_RPC_Object_var(new JSON_RPC_Object)
                                   : message.objects.front();
}

/** Code and id of the only fault in a text without messages. */
std::pair<int, Value> fault(std::string const& text) {
    JSON_RPC_Message message;
    EXPECT_FALSE(parse_json_rpc(text, message)) << text;
    EXPECT_FALSE(message.batch);
    EXPECT_TRUE(message.objects.empty()) << text;
    if (message.faults.size() != 1)
        return {0, "not one fault"};
    auto const& error = static_cast<JSON_RPC_Response_Error const&>(*message.faults.front());
    return {error.code(), error.id()};
}

Value deep(int levels) {
    Value value;
    for (int level = 0; level < levels; ++level)
        value = Array{value};
    return value;
}

TEST(JSON_RPC_Object, the_types_have_the_known_numbers) {
    EXPECT_EQ(0, JSON_RPC_Object::TYPE_NONE);
    EXPECT_EQ(1, JSON_RPC_Object::TYPE_NOTIFY);
    EXPECT_EQ(2, JSON_RPC_Object::TYPE_REQUEST);
    EXPECT_EQ(3, JSON_RPC_Object::TYPE_RESPONSE);
    EXPECT_EQ(4, JSON_RPC_Object::TYPE_RESPONSE_ERROR);
}

TEST(JSON_RPC_Object, an_object_that_is_no_message_has_no_text) {
    JSON_RPC_Object const object;
    EXPECT_EQ(JSON_RPC_Object::TYPE_NONE, object.type());
    EXPECT_EQ(Value(), object.value());
}

TEST(JSON_RPC_Object, a_request_as_text) {
    JSON_RPC_Request const request(7, "gaussdb.list", Object{{"uid", "u"}});
    EXPECT_EQ(JSON_RPC_Object::TYPE_REQUEST, request.type());
    EXPECT_EQ(
        "{\"id\":7,\"jsonrpc\":\"2.0\",\"method\":\"gaussdb.list\",\"params\":{\"uid\":\"u\"}}",
        request.text());
    EXPECT_EQ("{\"id\":\"x\",\"jsonrpc\":\"2.0\",\"method\":\"m\"}",
              JSON_RPC_Request("x", "m", Value()).text());
}

TEST(JSON_RPC_Object, a_notification_as_text) {
    JSON_RPC_Notify const notify("m", Array{1});
    EXPECT_EQ(JSON_RPC_Object::TYPE_NOTIFY, notify.type());
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"params\":[1]}", notify.text());
}

TEST(JSON_RPC_Object, a_response_takes_the_id_of_its_request) {
    JSON_RPC_Request const request("a1", "m", Value());
    JSON_RPC_Response response(&request);
    response.result() = Array{};
    response.result().get_array().push_back("uuid");
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response.type());
    EXPECT_EQ("{\"id\":\"a1\",\"jsonrpc\":\"2.0\",\"result\":[\"uuid\"]}", response.text());
    response.result(true);
    EXPECT_EQ(Value(true), response.result());
    EXPECT_EQ(Value(), JSON_RPC_Response(nullptr).id());
}

TEST(JSON_RPC_Object, a_null_result_is_written) {
    EXPECT_EQ("{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":null}",
              JSON_RPC_Response(1, Value()).text());
}

TEST(JSON_RPC_Object, an_error_as_text_with_and_without_data) {
    JSON_RPC_Response_Error const error(-32602, 1, "Invalid params\n", Value());
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, error.type());
    EXPECT_EQ("{\"error\":{\"code\":-32602,\"message\":\"Invalid params\\n\"},\"id\":1,"
              "\"jsonrpc\":\"2.0\"}",
              error.text());
    EXPECT_EQ("{\"error\":{\"code\":1,\"data\":[2],\"message\":\"\"},\"id\":null,"
              "\"jsonrpc\":\"2.0\"}",
              JSON_RPC_Response_Error(1, Value(), "", Array{2}).text());
}

TEST(JSON_RPC_Object, a_result_nested_too_deeply_becomes_an_error_with_its_id) {
    JSON_RPC_Message message;
    ASSERT_TRUE(parse_json_rpc(JSON_RPC_Response("a", deep(100)).text(), message));
    auto const& error = static_cast<JSON_RPC_Response_Error const&>(*message.objects.at(0));
    EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, error.type());
    EXPECT_EQ(JSON_RPC_INTERNAL_ERROR, error.code());
    EXPECT_EQ(Value("a"), error.id());
    EXPECT_NE(std::string::npos, JSON_RPC_Response("a", deep(99)).text().find("result"));
}

TEST(JSON_RPC_Object, data_nested_too_deeply_is_left_out_of_an_error) {
    EXPECT_EQ(JSON_RPC_Response_Error(-1, 2, "x", Value()).text(),
              JSON_RPC_Response_Error(-1, 2, "x", deep(100)).text());
}

TEST(JSON_RPC_Object, params_nested_too_deeply_cannot_be_written) {
    EXPECT_EQ("", JSON_RPC_Request(1, "m", deep(100)).text());
}

TEST(parse_json_rpc, every_kind_of_message) {
    JSON_RPC_Object_var const request =
        parsed("{\"jsonrpc\":\"2.0\",\"id\":\"i\",\"method\":\"m\",\"params\":{\"a\":1}}");
    ASSERT_EQ(JSON_RPC_Object::TYPE_REQUEST, request->type());
    EXPECT_EQ(Value("i"), static_cast<JSON_RPC_Request&>(*request).id());
    EXPECT_EQ("m", static_cast<JSON_RPC_Request&>(*request).method());
    EXPECT_EQ(Value(Object{{"a", 1}}), static_cast<JSON_RPC_Request&>(*request).params());

    JSON_RPC_Object_var const notify = parsed("{\"jsonrpc\":\"2.0\",\"method\":\"m\"}");
    ASSERT_EQ(JSON_RPC_Object::TYPE_NOTIFY, notify->type());
    EXPECT_EQ(Value(), static_cast<JSON_RPC_Notify&>(*notify).params());

    JSON_RPC_Object_var const response = parsed("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":null}");
    ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response->type());
    EXPECT_EQ(Value(), static_cast<JSON_RPC_Response&>(*response).result());

    JSON_RPC_Object_var const error = parsed("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":"
                                             "{\"code\":-1,\"message\":\"x\",\"data\":[]}}");
    ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE_ERROR, error->type());
    EXPECT_EQ(-1, static_cast<JSON_RPC_Response_Error&>(*error).code());
    EXPECT_EQ("x", static_cast<JSON_RPC_Response_Error&>(*error).message());
    EXPECT_EQ(Value(Array{}), static_cast<JSON_RPC_Response_Error&>(*error).data());
}

TEST(parse_json_rpc, params_may_be_of_any_kind_for_the_handler_to_judge) {
    for (char const* params : {"null", "5", "\"x\"", "true", "[]", "{}"}) {
        JSON_RPC_Object_var const request =
            parsed(std::string("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":") +
                   params + "}");
        EXPECT_EQ(params, json_spirit::to_text(static_cast<JSON_RPC_Request&>(*request).params()));
    }
}

TEST(parse_json_rpc, an_id_is_a_string_a_number_or_null) {
    for (char const* id : {"\"\"", "\"x\"", "0", "-1", "18446744073709551615", "1.5", "null"}) {
        JSON_RPC_Object_var const request =
            parsed(std::string("{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"id\":") + id + "}");
        ASSERT_EQ(JSON_RPC_Object::TYPE_REQUEST, request->type());
        EXPECT_EQ(id, json_spirit::to_text(static_cast<JSON_RPC_Request&>(*request).id()));
    }
    for (char const* id : {"true", "[1]", "{}"})
        EXPECT_EQ(std::pair(-32600, Value()),
                  fault(std::string("{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"id\":") + id + "}"));
}

TEST(parse_json_rpc, what_is_no_json_is_a_parse_error) {
    for (std::string const& text :
         {std::string(""), std::string("{"), std::string("[1,"), std::string("{} x"),
          std::string("\"\xFF\""), std::string(100000, '[')})
        EXPECT_EQ(std::pair(-32700, Value()), fault(text));
}

TEST(parse_json_rpc, what_is_no_message_is_an_invalid_request) {
    for (char const* text :
         {"1", "null", "\"x\"", "[]", "{}", "{\"jsonrpc\":\"2.0\"}", "{\"method\":\"m\"}",
          "{\"jsonrpc\":\"1.0\",\"method\":\"m\"}", "{\"jsonrpc\":2.0,\"method\":\"m\"}",
          "{\"jsonrpc\":\"2.0\",\"method\":1}", "{\"jsonrpc\":\"2.0\",\"method\":null}",
          "{\"jsonrpc\":\"2.0\",\"result\":1}",
          "{\"jsonrpc\":\"2.0\",\"error\":{\"code\":1,\"message\":\"\"}}"})
        EXPECT_EQ(std::pair(-32600, Value()), fault(text)) << text;
}

TEST(parse_json_rpc, an_invalid_request_keeps_a_good_id) {
    for (char const* rest :
         {"", ",\"method\":1", ",\"method\":\"m\",\"result\":1", ",\"method\":\"m\",\"error\":1",
          ",\"method\":1,\"result\":1", ",\"result\":1,\"error\":{\"code\":1,\"message\":\"\"}",
          ",\"error\":null", ",\"error\":{}", ",\"error\":{\"code\":1}",
          ",\"error\":{\"message\":\"x\"}", ",\"error\":{\"code\":1.5,\"message\":\"x\"}",
          ",\"error\":{\"code\":99999999999,\"message\":\"x\"}",
          ",\"error\":{\"code\":1,\"message\":2}"})
        EXPECT_EQ(std::pair(-32600, Value(7)),
                  fault(std::string("{\"jsonrpc\":\"2.0\",\"id\":7") + rest + "}"))
            << rest;
}

TEST(parse_json_rpc, other_members_are_passed_over) {
    EXPECT_EQ(JSON_RPC_Object::TYPE_NOTIFY,
              parsed("{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"x\":1}")->type());
}

TEST(parse_json_rpc, a_batch_keeps_its_good_messages_and_names_its_faults) {
    JSON_RPC_Message message;
    EXPECT_FALSE(parse_json_rpc("[{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"a\"},3,"
                                "{\"jsonrpc\":\"2.0\",\"method\":\"b\"},{\"id\":\"x\"},[]]",
                                message));
    EXPECT_TRUE(message.batch);
    ASSERT_EQ(2u, message.objects.size());
    EXPECT_EQ("a", static_cast<JSON_RPC_Notify&>(*message.objects[0]).method());
    EXPECT_EQ("b", static_cast<JSON_RPC_Notify&>(*message.objects[1]).method());
    ASSERT_EQ(3u, message.faults.size());
    EXPECT_EQ(Value("x"), static_cast<JSON_RPC_Response_Error&>(*message.faults[1]).id());
}

TEST(parse_json_rpc, a_batch_of_one_is_a_batch) {
    JSON_RPC_Message message;
    EXPECT_TRUE(parse_json_rpc("[{\"jsonrpc\":\"2.0\",\"method\":\"a\"}]", message));
    EXPECT_TRUE(message.batch);
    EXPECT_EQ(1u, message.objects.size());
}

TEST(parse_json_rpc, nothing_of_an_earlier_text_is_left) {
    JSON_RPC_Message message;
    parse_json_rpc("[{\"jsonrpc\":\"2.0\",\"method\":\"a\"},1]", message);
    EXPECT_TRUE(parse_json_rpc("{\"jsonrpc\":\"2.0\",\"method\":\"b\"}", message));
    EXPECT_FALSE(message.batch);
    EXPECT_EQ(1u, message.objects.size());
    EXPECT_TRUE(message.faults.empty());
}

TEST(json_rpc_text, a_batch_and_its_only_message) {
    std::vector<JSON_RPC_Object_var> objects;
    EXPECT_EQ("", json_rpc_text(objects, true));
    EXPECT_EQ("", json_rpc_text(objects, false));
    objects.emplace_back(new JSON_RPC_Response(1, true));
    EXPECT_EQ("{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":true}", json_rpc_text(objects, false));
    EXPECT_EQ("[{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":true}]", json_rpc_text(objects, true));
    objects.emplace_back(new JSON_RPC_Notify("m", deep(100))); // cannot be written
    objects.emplace_back(new JSON_RPC_Response(2, 3));
    EXPECT_EQ("[{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":true},"
              "{\"id\":2,\"jsonrpc\":\"2.0\",\"result\":3}]",
              json_rpc_text(objects, true));
}

TEST(json_rpc_text, what_is_written_is_read_back_the_same) {
    std::vector<JSON_RPC_Object_var> objects;
    objects.emplace_back(new JSON_RPC_Request("\xC3\xA4", "m", Object{{"a", Value()}}));
    objects.emplace_back(new JSON_RPC_Notify("", Value("any")));
    objects.emplace_back(new JSON_RPC_Response(1.5, Value()));
    objects.emplace_back(new JSON_RPC_Response_Error(INT_MIN, Value(), "x\n", Object{{"d", 1}}));
    JSON_RPC_Message message;
    ASSERT_TRUE(parse_json_rpc(json_rpc_text(objects, true), message));
    ASSERT_EQ(objects.size(), message.objects.size());
    for (size_t at = 0; at < objects.size(); ++at) {
        EXPECT_EQ(objects[at]->type(), message.objects[at]->type());
        EXPECT_EQ(objects[at]->value(), message.objects[at]->value());
    }
}

} // namespace
