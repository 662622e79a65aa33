// The status document's writer: valid UTF-8 JSON whatever bytes the control socket sent.
#include "base/json_writer.h"

#include <gtest/gtest.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <limits>
#include <string>

namespace vekt {
namespace {

std::string written(std::string_view text) { return JsonWriter().value(text).text(); }

TEST(JsonWriterTest, EscapesEveryControlByteAndReplacesBrokenUtf8) {
    const std::string shortForms[] = {"\\b", "\\t", "\\n", "", "\\f", "\\r"};
    for (int byte = 0; byte < 0x20; ++byte) {
        char expected[16];
        snprintf(expected, sizeof expected, "\"\\u%04x\"", byte);
        const bool hasShortForm = byte >= 8 && byte <= 13 && !shortForms[byte - 8].empty();
        EXPECT_EQ(written(std::string(1, static_cast<char>(byte))),
                  hasShortForm ? "\"" + shortForms[byte - 8] + "\"" : expected)
            << byte;
    }
    EXPECT_EQ(written("\x7f"), "\"\\u007f\"");
    EXPECT_EQ(written("a\"b\\c/"), R"("a\"b\\c/")");

    // Each byte of a broken sequence becomes one U+FFFD.
    EXPECT_EQ(written("\x80"), R"("\ufffd")");
    EXPECT_EQ(written("\xc0\xaf"), R"("\ufffd\ufffd")");            // overlong '/'
    EXPECT_EQ(written("\xe0\x80\xaf"), R"("\ufffd\ufffd\ufffd")");  // overlong, three bytes
    EXPECT_EQ(written("\xed\xa0\x80"), R"("\ufffd\ufffd\ufffd")");  // surrogate U+D800
    EXPECT_EQ(written("\xf4\x90\x80\x80"), R"("\ufffd\ufffd\ufffd\ufffd")");  // U+110000
    EXPECT_EQ(written("\xf5\xff"), R"("\ufffd\ufffd")");
    EXPECT_EQ(written("a\xe2\x82"), R"("a\ufffd\ufffd")");  // truncated at the end
    EXPECT_EQ(written("\xe2\x82x"), R"("\ufffd\ufffdx")");

    // Well-formed sequences of every length pass through, the limits included.
    for (const char* kept : {"\xc2\xa0", "\xdf\xbf", "\xe2\x82\xac", "\xed\x9f\xbf",
                             "\xee\x80\x80", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_EQ(written(kept), "\"" + std::string(kept) + "\"");
    }
    EXPECT_EQ(written(std::string_view("a\0b", 3)), R"("a\u0000b")");
    // C1 controls are escaped like C0 ones: a terminal takes U+009B for the start of a command.
    EXPECT_EQ(written("\xc2\x80\xc2\x9b"), R"("\u0080\u009b")");
}

TEST(JsonWriterTest, PlacesCommasAndNestsScopes) {
    JsonWriter writer;
    writer.beginObject()
        .field("name", "wlan0")
        .field("up", true)
        .field("rtt", -12)
        .field("bytes", uint64_t{18446744073709551615u})
        .field("gateway", static_cast<const char*>(nullptr));
    writer.key("links").beginArray().beginObject().endObject().beginArray().endArray();
    writer.value(int64_t{-9223372036854775807 - 1}).null().endArray();
    writer.key("empty").beginObject().endObject().endObject();
    EXPECT_TRUE(writer.complete());
    EXPECT_EQ(writer.text(),
              R"({"name":"wlan0","up":true,"rtt":-12,"bytes":18446744073709551615,)"
              R"("gateway":null,"links":[{},[],-9223372036854775808,null],"empty":{}})");
    EXPECT_EQ(JsonWriter().beginArray().value(std::string("x\n")).endArray().text(), R"(["x\n"])");
}

TEST(JsonWriterTest, MisplacedCallsMakeTheDocumentIncomplete) {
    EXPECT_FALSE(JsonWriter().complete());
    EXPECT_FALSE(JsonWriter().beginObject().complete());
    EXPECT_FALSE(JsonWriter().beginArray().key("a").complete());
    EXPECT_FALSE(JsonWriter().beginObject().value(1).complete());
    EXPECT_FALSE(JsonWriter().beginObject().key("a").endObject().complete());
    EXPECT_FALSE(JsonWriter().beginObject().endArray().complete());
    EXPECT_FALSE(JsonWriter().endObject().complete());
    EXPECT_FALSE(JsonWriter().value(1).value(2).complete());
    // Nothing written after the slip can make the document whole again.
    JsonWriter writer;
    writer.beginArray().endArray().endArray();
    EXPECT_FALSE(writer.complete());
    EXPECT_TRUE(JsonWriter().value("top").complete());
}

TEST(JsonWriterTest, WritesDoublesShortestAndNonFiniteAsNull) {
    const auto doubleText = [](double number) { return JsonWriter().value(number).text(); };
    EXPECT_EQ(doubleText(0.1), "0.1");
    EXPECT_EQ(doubleText(-2.5), "-2.5");
    EXPECT_EQ(doubleText(100), "100");
    EXPECT_EQ(doubleText(1e300), "1e+300");
    for (double number : {5e-324, 1.0 / 3, 2.2250738585072014e-308, -1.7976931348623157e308}) {
        EXPECT_EQ(strtod(doubleText(number).c_str(), nullptr), number);
    }
    EXPECT_EQ(doubleText(0.1 + 0.2), "0.30000000000000004");
    EXPECT_EQ(doubleText(NAN), "null");
    EXPECT_EQ(doubleText(INFINITY), "null");
    EXPECT_EQ(doubleText(-std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(JsonWriter().value(2.0f).text(), "2");
}

}  // namespace
}  // namespace vekt
