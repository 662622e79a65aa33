#include "json_value.h"

#include <math.h>
#include <stdlib.h>

#include <charconv>

#include "base/json_writer.h"

namespace vektctl {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isHighSurrogate(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void appendUtf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

class Parser {
public:
    explicit Parser(std::string_view text) : m_text(text) {}

    bool parseDocument(JsonValue& out) {
        skipWhitespace();
        if (!parseValue(out, 0)) return false;
        skipWhitespace();
        return atEnd() || fail("unexpected text after the document");
    }

    const std::string& error() const { return m_error; }

private:
    bool atEnd() const { return m_pos >= m_text.size(); }
    char peek() const { return atEnd() ? '\0' : m_text[m_pos]; }

    bool fail(const char* what) { return failAt(m_pos, what); }

    bool failAt(size_t offset, const char* what) {
        m_error = std::string(what) + " at byte " + std::to_string(offset);
        return false;
    }

    void skipWhitespace() {
        while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) {
            ++m_pos;
        }
    }

    bool consume(char expected) {
        if (peek() != expected || atEnd()) return false;
        ++m_pos;
        return true;
    }

    bool parseValue(JsonValue& out, int depth) {
        if (atEnd()) return fail("missing value");
        switch (peek()) {
            case '{':
                return parseObject(out, depth + 1);
            case '[':
                return parseArray(out, depth + 1);
            case '"':
                out.kind = JsonValue::Kind::String;
                return parseString(out.text);
            case 't':
                return parseLiteral("true", out, JsonValue::Kind::Bool, true);
            case 'f':
                return parseLiteral("false", out, JsonValue::Kind::Bool, false);
            case 'n':
                return parseLiteral("null", out, JsonValue::Kind::Null, false);
            default:
                break;
        }
        if (peek() == '-' || isDigit(peek())) return parseNumber(out);
        return fail("unexpected character");
    }

    bool parseLiteral(std::string_view word, JsonValue& out, JsonValue::Kind kind, bool flag) {
        if (m_text.substr(m_pos, word.size()) != word) return fail("unknown literal");
        m_pos += word.size();
        out.kind = kind;
        out.flag = flag;
        return true;
    }

    bool enterScope(int depth) {
        if (depth > kMaxJsonDepth) return fail("nesting too deep");
        ++m_pos;
        skipWhitespace();
        return true;
    }

    // After an element: true with more set when a comma follows, true with more clear at
    // the closing bracket.
    bool parseSeparator(char close, bool& more) {
        skipWhitespace();
        if (consume(',')) {
            skipWhitespace();
            more = true;
            return true;
        }
        if (consume(close)) {
            more = false;
            return true;
        }
        return fail(close == ']' ? "expected ',' or ']'" : "expected ',' or '}'");
    }

    bool parseArray(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Array;
        if (!enterScope(depth)) return false;
        if (consume(']')) return true;
        for (bool more = true; more;) {
            out.items.emplace_back();
            if (!parseValue(out.items.back(), depth)) return false;
            if (!parseSeparator(']', more)) return false;
        }
        return true;
    }

    bool parseMember(JsonValue& out, int depth) {
        if (peek() != '"' || atEnd()) return fail("expected a string key");
        out.members.emplace_back();
        JsonValue::Member& member = out.members.back();
        if (!parseString(member.first)) return false;
        skipWhitespace();
        if (!consume(':')) return fail("expected ':'");
        skipWhitespace();
        return parseValue(member.second, depth);
    }

    bool parseObject(JsonValue& out, int depth) {
        out.kind = JsonValue::Kind::Object;
        if (!enterScope(depth)) return false;
        if (consume('}')) return true;
        for (bool more = true; more;) {
            if (!parseMember(out, depth)) return false;
            if (!parseSeparator('}', more)) return false;
        }
        return true;
    }

    bool parseString(std::string& out) {
        ++m_pos;
        while (!atEnd()) {
            const auto byte = static_cast<unsigned char>(peek());
            if (byte == '"') {
                ++m_pos;
                return true;
            }
            if (byte == '\\') {
                if (!parseEscape(out)) return false;
            } else if (byte < 0x20) {
                return fail("control character in string");
            } else if (!appendRawSequence(out)) {
                return false;
            }
        }
        return fail("unterminated string");
    }

    bool appendRawSequence(std::string& out) {
        const size_t length = vekt::utf8SequenceLength(m_text.substr(m_pos));
        if (length == 0) return fail("invalid UTF-8 in string");
        out.append(m_text.substr(m_pos, length));
        m_pos += length;
        return true;
    }

    bool parseEscape(std::string& out) {
        ++m_pos;
        const char kind = peek();
        if (atEnd()) return fail("unterminated string");
        static constexpr std::string_view kEscaped = "\"\\/bfnrt";
        static constexpr std::string_view kDecoded = "\"\\/\b\f\n\r\t";
        const size_t index = kEscaped.find(kind);
        if (index != std::string_view::npos) {
            out += kDecoded[index];
            ++m_pos;
            return true;
        }
        if (kind == 'u') return parseUnicodeEscape(out);
        return fail("invalid escape");
    }

    // Reads the four hex digits after "\u"; m_pos is at the 'u'.
    bool readCodeUnit(uint32_t& unit) {
        if (m_text.size() - m_pos < 5) return fail("truncated \\u escape");
        unit = 0;
        for (size_t i = 1; i <= 4; ++i) {
            const int digit = hexDigitValue(m_text[m_pos + i]);
            if (digit < 0) return fail("invalid \\u escape");
            unit = unit * 16 + static_cast<uint32_t>(digit);
        }
        m_pos += 5;
        return true;
    }

    // UTF-16 escapes: a code point above U+FFFF arrives as a high and a low surrogate, each
    // escaped; either one alone names no character and cannot be written as UTF-8. Errors
    // name the offset of the offending escape's backslash.
    bool parseUnicodeEscape(std::string& out) {
        const size_t escapeStart = m_pos - 1;
        uint32_t unit = 0;
        if (!readCodeUnit(unit)) return false;
        if (isLowSurrogate(unit)) return failAt(escapeStart, "lone low surrogate");
        if (isHighSurrogate(unit)) {
            if (m_text.substr(m_pos, 2) != "\\u") {
                return failAt(escapeStart, "lone high surrogate");
            }
            const size_t lowStart = m_pos;
            ++m_pos;
            uint32_t low = 0;
            if (!readCodeUnit(low)) return false;
            if (!isLowSurrogate(low)) return failAt(lowStart, "high surrogate without a low one");
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        }
        appendUtf8(out, unit);
        return true;
    }

    // Digits, at least one.
    bool skipDigits() {
        if (!isDigit(peek()) || atEnd()) return false;
        while (!atEnd() && isDigit(peek())) ++m_pos;
        return true;
    }

    bool scanNumber() {
        consume('-');
        if (!consume('0') && !skipDigits()) return fail("invalid number");
        if (consume('.') && !skipDigits()) return fail("digits expected after '.'");
        if (consume('e') || consume('E')) {
            if (!consume('+')) consume('-');
            if (!skipDigits()) return fail("digits expected in the exponent");
        }
        return true;
    }

    // strtod follows the C locale, whose decimal point is JSON's '.'; vektctl never calls
    // setlocale.
    bool parseNumber(JsonValue& out) {
        const size_t start = m_pos;
        if (!scanNumber()) return false;
        out.kind = JsonValue::Kind::Number;
        out.text = std::string(m_text.substr(start, m_pos - start));
        out.number = strtod(out.text.c_str(), nullptr);
        if (!isfinite(out.number)) {
            m_pos = start;
            return fail("number out of range");
        }
        return true;
    }

    std::string_view m_text;
    size_t m_pos = 0;
    std::string m_error;
};

}  // namespace

const JsonValue* JsonValue::find(std::string_view key) const {
    if (kind != Kind::Object) return nullptr;
    for (const Member& member : members) {
        if (member.first == key) return &member.second;
    }
    return nullptr;
}

bool JsonValue::asBool(bool fallback) const { return kind == Kind::Bool ? flag : fallback; }

double JsonValue::asNumber(double fallback) const {
    return kind == Kind::Number ? number : fallback;
}

std::string JsonValue::asString(std::string_view fallback) const {
    return kind == Kind::String ? text : std::string(fallback);
}

int64_t JsonValue::asInteger(int64_t fallback) const {
    if (kind != Kind::Number) return fallback;
    int64_t whole = 0;
    const char* end = text.data() + text.size();
    const auto [stop, status] = std::from_chars(text.data(), end, whole);
    return status == std::errc() && stop == end ? whole : fallback;
}

bool parseJson(std::string_view text, JsonValue& out, std::string& error) {
    out = JsonValue();
    Parser parser(text);
    if (parser.parseDocument(out)) return true;
    error = parser.error();
    return false;
}

}  // namespace vektctl
