// vektctl's JSON reader: the daemon's documents read back as written, and broken or
// hostile ones refused with a reason instead of a crash.
#include "vektctl/json_value.h"

#include <gtest/gtest.h>

#include <string>

#include "base/json_writer.h"

namespace vektctl {
namespace {

using Kind = JsonValue::Kind;

JsonValue parsed(std::string_view text) {
    JsonValue value;
    std::string error;
    EXPECT_TRUE(parseJson(text, value, error)) << text << ": " << error;
    return value;
}

std::string refusal(std::string_view text) {
    JsonValue value;
    std::string error;
    EXPECT_FALSE(parseJson(text, value, error)) << text;
    return error;
}

TEST(JsonValueTest, ReadsATreeInDocumentOrder) {
    const JsonValue root = parsed(
        " {\"z\":1, \"a\":[true,false,null,-0.5e1,\"s\"],\"big\":9007199254740993,"
        "\"e\":\"\\u00e9\\ud83d\\ude00\\\"\\\\\\/\\b\\f\\n\\r\\t\",\"o\":{}}\r\n");
    ASSERT_EQ(root.kind, Kind::Object);
    ASSERT_EQ(root.members.size(), 5u);
    EXPECT_EQ(root.members[0].first, "z");
    EXPECT_EQ(root.members[1].first, "a");

    const JsonValue* list = root.find("a");
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->items.size(), 5u);
    EXPECT_TRUE(list->items[0].asBool());
    EXPECT_FALSE(list->items[1].asBool(true));
    EXPECT_TRUE(list->items[2].isNull());
    EXPECT_EQ(list->items[3].asNumber(), -5.0);
    EXPECT_EQ(list->items[3].asInteger(7), 7);
    EXPECT_EQ(list->items[4].asString(), "s");

    EXPECT_EQ(root.find("big")->asInteger(), 9007199254740993);
    EXPECT_EQ(root.find("e")->asString(), "\xc3\xa9\xf0\x9f\x98\x80\"\\/\b\f\n\r\t");
    EXPECT_EQ(root.find("o")->kind, Kind::Object);
    EXPECT_EQ(root.find("missing"), nullptr);
    EXPECT_EQ(root.find("z")->asString("none"), "none");
    EXPECT_EQ(list->find("z"), nullptr);
    EXPECT_EQ(parsed("\"\\u0000\"").asString(), std::string(1, '\0'));
}

TEST(JsonValueTest, ReadsBackWhatTheDaemonWritesForEveryByte) {
    const std::string replacement = "\xef\xbf\xbd";
    const auto replacements = [&](int count) {
        std::string text;
        for (int i = 0; i < count; ++i) text += replacement;
        return text;
    };
    // No byte from 0x80 up starts a well-formed sequence when the next byte is its successor.
    std::string everyByte;
    std::string expected;
    for (int byte = 0; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
        expected += byte < 0x80 ? std::string(1, static_cast<char>(byte)) : replacement;
    }
    // A euro sign, a truncated one, a surrogate, an emoji, an overlong '/', a cut-off F4.
    const std::string mixed = "\xe2\x82\xac\xe2\x82\xed\xa0\x80\xf0\x9f\x98\x80\xc0\xaf\xf4\x90";

    vekt::JsonWriter writer;
    writer.beginObject().field("bytes", everyByte).field("mixed", mixed).endObject();
    const JsonValue root = parsed(writer.text());
    EXPECT_EQ(root.find("bytes")->asString(), expected);
    EXPECT_EQ(root.find("mixed")->asString(),
              "\xe2\x82\xac" + replacements(5) + "\xf0\x9f\x98\x80" + replacements(4));
}

TEST(JsonValueTest, RefusesBrokenDocumentsSayingWhereAndWhy) {
    EXPECT_EQ(refusal("{\"a\":1} x"), "unexpected text after the document at byte 8");
    EXPECT_EQ(refusal("\"abc"), "unterminated string at byte 4");
    EXPECT_EQ(refusal("\"\\x\""), "invalid escape at byte 2");
    EXPECT_EQ(refusal("\"\\ud800\""), "lone high surrogate at byte 1");
    EXPECT_EQ(refusal("\"\\udc00\""), "lone low surrogate at byte 1");
    EXPECT_EQ(refusal("\"\\ud800\\u0041\""), "high surrogate without a low one at byte 7");
    EXPECT_EQ(refusal("1e999"), "number out of range at byte 0");
    for (const char* broken :
         {"", "  ", "[", "[1,]", "[1 2]", "{\"a\"}", "{\"a\":}", "{,}", "{1:2}", "tru", "nul",
          "01", "-", "1.", "1e", "+1", ".5", "\"\\u12\"", "\"\\u12g4\"", "\"\\", "\"a\nb\"",
          "\"\xff\"", "\"\xed\xa0\x80\"", "[1]]", "\xef\xbb\xbf[]"}) {
        EXPECT_FALSE(refusal(broken).empty()) << broken;
    }
    // Hostile input ends at the text's bounds, not at a NUL.
    EXPECT_FALSE(refusal(std::string_view("[1\0]", 4)).empty());
    EXPECT_FALSE(refusal(std::string_view("\"\\u00", 5)).empty());
}

TEST(JsonValueTest, RefusesNestingDeeperThanTheLimit) {
    const std::string deepest =
        std::string(kMaxJsonDepth, '[') + std::string(kMaxJsonDepth, ']');
    EXPECT_EQ(parsed(deepest).kind, Kind::Array);

    const std::string bomb(1000000, '[');
    EXPECT_EQ(refusal(bomb), "nesting too deep at byte 64");
    EXPECT_EQ(refusal(std::string(kMaxJsonDepth + 1, '[') + "]"), "nesting too deep at byte 64");
    EXPECT_FALSE(refusal(std::string(100000, '{') + "\"a\":").empty());
}

}  // namespace
}  // namespace vektctl
