// A streaming JSON writer for the status socket. The texts it writes come from the control
// socket, so any byte string must still give valid UTF-8 JSON: broken UTF-8 becomes
// U+FFFD, one per byte, rather than failing the whole document.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace vekt {

// The length of the well-formed UTF-8 sequence at the start of text, 0 when it starts with
// none (bad lead byte, truncated or overlong sequence, surrogate, beyond U+10FFFF).
size_t utf8SequenceLength(std::string_view text);

class JsonWriter {
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(std::string_view name);

    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text);  // nullptr is written as null
    JsonWriter& value(bool flag);
    JsonWriter& value(double number);  // NaN and infinities are written as null
    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer> &&
                                                            !std::is_same_v<Integer, bool> &&
                                                            !std::is_same_v<Integer, char>>>
    JsonWriter& value(Integer number) {
        if constexpr (std::is_signed_v<Integer>) {
            return signedValue(number);
        } else {
            return unsignedValue(number);
        }
    }
    JsonWriter& null();

    template <typename Value>
    JsonWriter& field(std::string_view name, const Value& content) {
        return key(name).value(content);
    }

    // A call out of place (a key in an array, a value where a key belongs, an end that
    // closes nothing, a second top-level value) writes nothing and makes the document
    // incomplete for good, so a caller's slip never reaches a reader as broken JSON.
    bool complete() const;
    const std::string& text() const { return m_text; }

private:
    struct Scope {
        bool isObject;
        bool empty;
    };

    bool valueAllowed() const;
    bool prepareValue();
    JsonWriter& beginScope(bool isObject, char open);
    JsonWriter& endScope(bool isObject, char close);
    JsonWriter& signedValue(int64_t number);
    JsonWriter& unsignedValue(uint64_t number);
    JsonWriter& rawValue(std::string_view literal);
    void appendString(std::string_view text);
    JsonWriter& misused();

    std::string m_text;
    std::vector<Scope> m_scopes;
    bool m_keyPending = false;  // a key was written and its value is still due
    bool m_rootWritten = false;
    bool m_misused = false;
};

}  // namespace vekt
