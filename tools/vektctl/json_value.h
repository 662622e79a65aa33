// The JSON reader behind `vektctl status`: the daemon's status document as a tree. A pure
// function over the text, so a broken or hostile document gives an error, never a crash.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vektctl {

// Deeper documents are refused, so nesting cannot exhaust the stack of the recursive
// reader; the status document nests three levels.
constexpr int kMaxJsonDepth = 64;

struct JsonValue {
    enum class Kind { Null, Bool, Number, String, Array, Object };
    using Member = std::pair<std::string, JsonValue>;

    Kind kind = Kind::Null;
    bool flag = false;             // Bool
    double number = 0;             // Number
    std::string text;              // String: the decoded UTF-8; Number: the literal as written
    std::vector<JsonValue> items;  // Array
    std::vector<Member> members;   // Object, in document order; repeated keys are kept

    bool isNull() const { return kind == Kind::Null; }

    // The member named key (the first one, should it repeat); nullptr when there is none
    // or this is no object.
    const JsonValue* find(std::string_view key) const;

    // The content when the kind matches, the fallback otherwise.
    bool asBool(bool fallback = false) const;
    double asNumber(double fallback = 0) const;
    std::string asString(std::string_view fallback = {}) const;
    // Exact for whole numbers a double cannot hold, e.g. byte counters above 2^53; the
    // fallback for fractions, exponents and values outside int64_t.
    int64_t asInteger(int64_t fallback = 0) const;
};

// Parses one JSON document (RFC 8259, UTF-8) that fills the whole text but for white space
// around it. Returns false with the reason and its byte offset in error, out then being
// unspecified.
bool parseJson(std::string_view text, JsonValue& out, std::string& error);

}  // namespace vektctl
