// Fuzzes vektctl's JSON reader: each input is a status document as read from the socket.
// A document it accepts is written again with the daemon's writer and read once more; the
// two trees must be equal, so reader and writer agree on every text the reader lets through.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "base/json_writer.h"
#include "vektctl/json_value.h"

namespace {

using vektctl::JsonValue;

void write(const JsonValue& value, vekt::JsonWriter& writer) {
    switch (value.kind) {
        case JsonValue::Kind::Null:
            writer.null();
            break;
        case JsonValue::Kind::Bool:
            writer.value(value.flag);
            break;
        case JsonValue::Kind::Number:
            writer.value(value.number);
            break;
        case JsonValue::Kind::String:
            writer.value(std::string_view(value.text));
            break;
        case JsonValue::Kind::Array:
            writer.beginArray();
            for (const JsonValue& item : value.items) write(item, writer);
            writer.endArray();
            break;
        case JsonValue::Kind::Object:
            writer.beginObject();
            for (const JsonValue::Member& member : value.members) {
                writer.key(member.first);
                write(member.second, writer);
            }
            writer.endObject();
            break;
    }
}

// Numbers compare by value: the writer's literal need not be the one that was read.
bool sameTree(const JsonValue& a, const JsonValue& b) {
    if (a.kind != b.kind || a.flag != b.flag || a.number != b.number) return false;
    if (a.kind == JsonValue::Kind::String && a.text != b.text) return false;
    if (a.items.size() != b.items.size() || a.members.size() != b.members.size()) return false;
    for (size_t i = 0; i < a.items.size(); ++i) {
        if (!sameTree(a.items[i], b.items[i])) return false;
    }
    for (size_t i = 0; i < a.members.size(); ++i) {
        if (a.members[i].first != b.members[i].first) return false;
        if (!sameTree(a.members[i].second, b.members[i].second)) return false;
    }
    return true;
}

void crash(const char* what, std::string_view text) {
    fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(text.size()), text.data());
    abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    JsonValue first;
    std::string error;
    if (!vektctl::parseJson(text, first, error)) {
        if (error.empty()) crash("refused without a reason", text);
        return 0;
    }
    vekt::JsonWriter writer;
    write(first, writer);
    if (!writer.complete()) crash("tree not writable", writer.text());
    JsonValue second;
    if (!vektctl::parseJson(writer.text(), second, error)) crash(error.c_str(), writer.text());
    if (!sameTree(first, second)) crash("tree changed on the way through the writer", text);
    volatile int64_t sink = first.asInteger() + static_cast<int64_t>(first.asString().size());
    if (const JsonValue* found = first.find("interfaces")) sink = sink + found->asBool();
    return 0;
}
