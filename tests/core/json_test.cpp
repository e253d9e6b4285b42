// Typed look-ups at key paths: missing keys, wrong types and slot ownership.
#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>

#include "core_support.h"
#include "kt5Utils/kt5_json.h"
#include "kt5Utils/text.h"

namespace uoztest {
namespace {

JsonPtr parse(const char *text) {
    return JsonPtr(json_tokener_parse(text));
}

TEST(JsonGetTest, missingKeysLogWithTheSearchedDocumentAndLeaveTheSlot) {
    JsonPtr entry = parse(R"({"name":"engine"})");
    LogCapture capture(2);
    const char *text = "untouched";
    EXPECT_EQ(kt5_json_get(entry.get(), json_type_string, &text, "can", "ifname", nullptr), -1);
    EXPECT_EQ(kt5_json_get(nullptr, json_type_string, &text, "type", nullptr), -1);
    EXPECT_EQ(std::regex_replace(capture.text(), std::regex(R"( \S+:[0-9]+ )"), " "),
              "[T] INFO No can property in { \"name\": \"engine\" }\n"
              "[T] INFO No ifname property in { \"name\": \"engine\" }\n"
              "[T] INFO No type property in null\n");
    EXPECT_STREQ(text, "untouched");
}

TEST(JsonGetTest, scalarsAreHandedOutInTheirFormsAndWrongTypesFailSilently) {
    JsonPtr document = parse(R"({"a":{"n":7,"s":"x","b":true,"d":1.5,"nil":null}})");
    int32_t number = 0;
    int boolean = 0;
    double real = 0;
    const char *text = nullptr;
    EXPECT_EQ(kt5_json_get(document.get(), json_type_int, &number, "a", "n", nullptr), 0);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_boolean, &boolean, "a", "b", nullptr), 0);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_double, &real, "a", "d", nullptr), 0);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_string, &text, "a", "s", nullptr), 0);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(boolean, 1);
    EXPECT_EQ(real, 1.5);
    EXPECT_STREQ(text, "x");
    LogCapture capture(2);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_string, &text, "a", "n", nullptr), -1);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_int, &number, "a", "s", nullptr), -1);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_string, &text, "a", "nil", nullptr), -1);
    EXPECT_EQ(kt5_json_get(document.get(), json_type_null, &text, "a", "nil", nullptr), -1);
    EXPECT_STREQ(text, "x");
    EXPECT_EQ(number, 7);
    EXPECT_EQ(capture.raw(), "");
}

TEST(JsonGetTest, objectSlotsTakeIndependentCopiesAndAreReleasedOnFailure) {
    JsonPtr document = parse(R"({"o":{"k":"v"},"s":"x"})");
    json_object *slot = json_object_new_object();  // released by the call (ASan checks)
    ASSERT_EQ(kt5_json_get(document.get(), json_type_object, &slot, "o", nullptr), 0);
    ASSERT_NE(slot, nullptr);
    JsonPtr copy(json_object_get(slot));
    json_object_object_add(slot, "added", json_object_new_int(1));
    EXPECT_STREQ(json_object_to_json_string(document.get()), R"({ "o": { "k": "v" }, "s": "x" })");
    EXPECT_EQ(kt5_json_get(document.get(), json_type_object, &slot, "s", nullptr), -1);
    EXPECT_EQ(slot, nullptr);
    document.reset();
    EXPECT_STREQ(json_object_to_json_string(copy.get()), R"({ "k": "v", "added": 1 })");
    slot = json_object_new_array();
    EXPECT_EQ(kt5_json_get(nullptr, json_type_array, &slot, "missing", nullptr), -1);
    EXPECT_EQ(slot, nullptr);
}

TEST(JsonCopyTest, copySerialisesExactlyAsTheOriginal) {
    const char *text =
        R"({"n":1.50,"e":1e3,"big":123456789012345678901,"s":"\u00e9\"","a":[null,true,{}]})";
    JsonPtr document = parse(text);
    JsonPtr copy(kt5_json_copy(document.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), document.get());
    EXPECT_STREQ(json_object_to_json_string(copy.get()),
                 json_object_to_json_string(document.get()));
    JsonPtr reparsed(json_tokener_parse(json_object_to_json_string(document.get())));
    EXPECT_STREQ(json_object_to_json_string(copy.get()),
                 json_object_to_json_string(reparsed.get()));
    EXPECT_EQ(kt5_json_copy(nullptr), nullptr);
}

TEST(JsonBorrowTest, lendsTheValueInPlaceAndLogsLikeGet) {
    JsonPtr document = parse(R"({"body":{"uds":{"data-record":[1,2]}},"s":"x"})");
    json_object *body = nullptr;
    json_object_object_get_ex(document.get(), "body", &body);
    EXPECT_EQ(kt5_json_borrow(document.get(), json_type_object, "body", nullptr), body);
    json_object *records =
        kt5_json_borrow(document.get(), json_type_array, "body", "uds", "data-record", nullptr);
    ASSERT_NE(records, nullptr);
    EXPECT_EQ(json_object_array_length(records), 2u);
    LogCapture capture(2);
    EXPECT_EQ(kt5_json_borrow(document.get(), json_type_array, "body", "uds", nullptr), nullptr);
    EXPECT_EQ(kt5_json_borrow(document.get(), json_type_string, "s", nullptr), nullptr);
    EXPECT_EQ(kt5_json_borrow(document.get(), json_type_object, "nobody", nullptr), nullptr);
    std::string log = capture.text();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find(" No nobody property in { \"body\": "), std::string::npos) << log;
}

TEST(JsonHasTest, presenceIgnoresTypesAndCountsNull) {
    JsonPtr document = parse(R"({"diagnostic_period":{"start_time":null},"x":1})");
    EXPECT_EQ(kt5_json_has(document.get(), "diagnostic_period", nullptr), 1);
    EXPECT_EQ(kt5_json_has(document.get(), "diagnostic_period", "start_time", nullptr), 1);
    EXPECT_EQ(kt5_json_has(document.get(), "diagnostic_period", "start_time", "deeper", nullptr),
              0);
    EXPECT_EQ(kt5_json_has(document.get(), "x", "y", nullptr), 0);
    EXPECT_EQ(kt5_json_has(nullptr, "x", nullptr), 0);
}

// Only A-Z and a-z pair up: the neighbours that differ by the same bit (@ and `,
// [ and {) and bytes beyond ASCII stay apart, as do texts of other lengths.
TEST(TextTest, caseIsFoldedForAsciiLettersOnly) {
    struct Case {
        const char *first;
        const char *second;
        bool equal;
    } cases[] = {
        {"AZ", "az", true},         {"engine", "eNGINe", true}, {"", "", true},
        {"@", "`", false},          {"[", "{", false},          {"\xC4\xB0", "i", false},
        {"engine", "engin", false}, {"a", "", false},
    };
    for (const Case &c : cases)
        EXPECT_EQ(ascii_equal_ignoring_case(c.first, c.second), c.equal) << c.first << c.second;
}

}  // namespace
}  // namespace uoztest
