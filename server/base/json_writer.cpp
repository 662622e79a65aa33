#include "base/json_writer.h"

#include <inttypes.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

namespace vekt {
namespace {

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The bytes a lead byte announces, 0 for one that can never start a well-formed sequence:
// C0 and C1 only start overlong forms, F5 and up only code points beyond U+10FFFF.
size_t announcedLength(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) return 3;
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    return 0;
}

// The second byte carries the remaining limits: it rules out the overlong three- and
// four-byte forms (after E0, F0), the surrogates (after ED) and values past U+10FFFF
// (after F4).
bool secondByteFits(unsigned char lead, unsigned char second) {
    switch (lead) {
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return isContinuation(second);
    }
}

const char* shortEscape(unsigned char byte) {
    switch (byte) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\b':
            return "\\b";
        case '\f':
            return "\\f";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return nullptr;
    }
}

void appendAscii(std::string& out, unsigned char byte) {
    if (const char* escape = shortEscape(byte)) {
        out += escape;
    } else if (byte < 0x20 || byte == 0x7F) {
        char escape[8];
        snprintf(escape, sizeof escape, "\\u%04x", byte);
        out += escape;
    } else {
        out += static_cast<char>(byte);
    }
}

// The shortest of %.15g to %.17g that reads back as the same double: 0.1 stays "0.1"
// instead of 0.10000000000000001. snprintf and strtod follow the C locale, whose decimal
// point is the '.' JSON needs; the daemon never calls setlocale.
std::string formatDouble(double number) {
    char text[32];
    for (int precision = 15; precision < 17; ++precision) {
        snprintf(text, sizeof text, "%.*g", precision, number);
        if (strtod(text, nullptr) == number) return text;
    }
    snprintf(text, sizeof text, "%.17g", number);
    return text;
}

}  // namespace

size_t utf8SequenceLength(std::string_view text) {
    if (text.empty()) return 0;
    const auto lead = static_cast<unsigned char>(text[0]);
    const size_t length = announcedLength(lead);
    if (length <= 1) return length;
    if (text.size() < length) return 0;
    if (!secondByteFits(lead, static_cast<unsigned char>(text[1]))) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (!isContinuation(static_cast<unsigned char>(text[i]))) return 0;
    }
    return length;
}

JsonWriter& JsonWriter::beginObject() { return beginScope(true, '{'); }
JsonWriter& JsonWriter::endObject() { return endScope(true, '}'); }
JsonWriter& JsonWriter::beginArray() { return beginScope(false, '['); }
JsonWriter& JsonWriter::endArray() { return endScope(false, ']'); }

JsonWriter& JsonWriter::key(std::string_view name) {
    if (m_misused || m_scopes.empty() || !m_scopes.back().isObject || m_keyPending) {
        return misused();
    }
    if (!m_scopes.back().empty) m_text += ',';
    m_scopes.back().empty = false;
    appendString(name);
    m_text += ':';
    m_keyPending = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    if (!prepareValue()) return *this;
    appendString(text);
    return *this;
}

JsonWriter& JsonWriter::value(const char* text) {
    return text == nullptr ? null() : value(std::string_view(text));
}

JsonWriter& JsonWriter::value(bool flag) { return rawValue(flag ? "true" : "false"); }

JsonWriter& JsonWriter::value(double number) {
    if (!isfinite(number)) return null();
    return rawValue(formatDouble(number));
}

JsonWriter& JsonWriter::null() { return rawValue("null"); }

bool JsonWriter::complete() const { return !m_misused && m_rootWritten && m_scopes.empty(); }

bool JsonWriter::valueAllowed() const {
    if (m_misused) return false;
    if (m_scopes.empty()) return !m_rootWritten;
    return m_scopes.back().isObject ? m_keyPending : true;
}

// Writes the separator a value needs where it stands; false (and the writer marked
// misused) when no value may stand here.
bool JsonWriter::prepareValue() {
    if (!valueAllowed()) {
        misused();
        return false;
    }
    if (m_scopes.empty()) {
        m_rootWritten = true;
    } else if (m_scopes.back().isObject) {
        m_keyPending = false;
    } else {
        if (!m_scopes.back().empty) m_text += ',';
        m_scopes.back().empty = false;
    }
    return true;
}

JsonWriter& JsonWriter::beginScope(bool isObject, char open) {
    if (!prepareValue()) return *this;
    m_text += open;
    m_scopes.push_back(Scope{isObject, true});
    return *this;
}

JsonWriter& JsonWriter::endScope(bool isObject, char close) {
    if (m_misused || m_scopes.empty() || m_scopes.back().isObject != isObject || m_keyPending) {
        return misused();
    }
    m_scopes.pop_back();
    m_text += close;
    return *this;
}

JsonWriter& JsonWriter::signedValue(int64_t number) {
    char text[24];
    snprintf(text, sizeof text, "%" PRId64, number);
    return rawValue(text);
}

JsonWriter& JsonWriter::unsignedValue(uint64_t number) {
    char text[24];
    snprintf(text, sizeof text, "%" PRIu64, number);
    return rawValue(text);
}

JsonWriter& JsonWriter::rawValue(std::string_view literal) {
    if (prepareValue()) m_text += literal;
    return *this;
}

void JsonWriter::appendString(std::string_view text) {
    m_text += '"';
    size_t pos = 0;
    while (pos < text.size()) {
        const size_t length = utf8SequenceLength(text.substr(pos));
        if (length == 1) {
            appendAscii(m_text, static_cast<unsigned char>(text[pos]));
        } else if (length == 2 && static_cast<unsigned char>(text[pos]) == 0xC2 &&
                   static_cast<unsigned char>(text[pos + 1]) < 0xA0) {
            // U+0080 to U+009F: C1 controls (U+009B starts a terminal command), escaped so
            // the document can be printed as it came.
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x",
                     static_cast<unsigned char>(text[pos + 1]));
            m_text += escaped;
        } else if (length > 1) {
            m_text.append(text, pos, length);
        } else {
            m_text += "\\ufffd";
        }
        pos += length == 0 ? 1 : length;
    }
    m_text += '"';
}

JsonWriter& JsonWriter::misused() {
    m_misused = true;
    return *this;
}

}  // namespace vekt
