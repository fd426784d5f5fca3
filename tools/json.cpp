#include "json.h"

#include <cstdio>

namespace OvraCli {
namespace {

void AppendUtf8(std::string &out, unsigned long codePoint)
{
    if (codePoint < 0x80) {
        out += static_cast<char>(codePoint);
    } else if (codePoint < 0x800) {
        out += static_cast<char>(0xC0 | (codePoint >> 6));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        out += static_cast<char>(0xE0 | (codePoint >> 12));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (codePoint >> 18));
        out += static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (codePoint & 0x3F));
    }
}

// The length of the UTF-8 sequence that starts at `at`, or 0 when it is not one that Python decodes: no
// overlong form, no surrogate, nothing above U+10FFFF.
std::size_t Utf8SequenceAt(std::string_view text, std::size_t at)
{
    const auto byte = [&](std::size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
    };
    const unsigned lead = byte(0);
    const bool tail1 = (byte(1) & 0xC0) == 0x80;
    const bool tail2 = tail1 && (byte(2) & 0xC0) == 0x80;
    const bool tail3 = tail2 && (byte(3) & 0xC0) == 0x80;
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return tail1 ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const bool overlong = lead == 0xE0 && byte(1) < 0xA0;
        const bool surrogate = lead == 0xED && byte(1) >= 0xA0;
        return tail2 && !overlong && !surrogate ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const bool overlong = lead == 0xF0 && byte(1) < 0x90;
        const bool beyond = lead == 0xF4 && byte(1) >= 0x90;
        return tail3 && !overlong && !beyond ? 4 : 0;
    }
    return 0;
}

std::size_t FirstInvalidUtf8(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = Utf8SequenceAt(text, at);
        if (length == 0) {
            return at;
        }
        at += length;
    }
    return std::string_view::npos;
}

class Reader {
  public:
    explicit Reader(std::string_view text) : text_(text) {}

    bool ReadObject(JsonObject &object)
    {
        const std::size_t invalid = FirstInvalidUtf8(text_);
        if (invalid != std::string_view::npos) {
            pos_ = invalid;
            return Fail("a byte that is not UTF-8");
        }
        if (!Expect('{')) {
            return false;
        }
        if (Peek() == '}') {
            ++pos_;
            return AtEnd();
        }
        do {
            std::string key;
            std::string value;
            if (!ReadString(key) || !Expect(':') || !ReadValueString(key, value)) {
                return false;
            }
            object[key] = value;
        } while (Consume(','));
        return Expect('}') && AtEnd();
    }

    const std::string &Error() const { return error_; }

  private:
    char Peek()
    {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\r')) {
            ++pos_;
        }
        return pos_ < text_.size() ? text_[pos_] : '\0';
    }

    bool Consume(char c)
    {
        if (Peek() != c) {
            return false;
        }
        ++pos_;
        return true;
    }

    bool Fail(const std::string &what)
    {
        if (error_.empty()) {
            error_ = what + " at column " + std::to_string(pos_ + 1);
        }
        return false;
    }

    bool Expect(char c) { return Consume(c) || Fail(std::string("expected '") + c + "'"); }

    bool AtEnd()
    {
        Peek();
        return pos_ == text_.size() || Fail("unexpected text after the object");
    }

    bool ReadValueString(const std::string &key, std::string &value)
    {
        if (Peek() != '"') {
            return Fail("the value of \"" + key + "\" is not a string");
        }
        return ReadString(value);
    }

    bool ReadString(std::string &out)
    {
        if (!Expect('"')) {
            return false;
        }
        while (pos_ < text_.size()) {
            const char c = text_[pos_++];
            if (c == '"') {
                return true;
            }
            if (static_cast<unsigned char>(c) < 0x20) {
                return Fail("control character in a string");
            }
            if (c != '\\') {
                out += c;
            } else if (!ReadEscape(out)) {
                return false;
            }
        }
        return Fail("unterminated string");
    }

    bool ReadEscape(std::string &out)
    {
        const char c = pos_ < text_.size() ? text_[pos_++] : '\0';
        const std::string simple = "\"\\/bfnrt";
        const std::string meaning = "\"\\/\b\f\n\r\t";
        const std::size_t which = simple.find(c);
        if (c != '\0' && which != std::string::npos) {
            out += meaning[which];
            return true;
        }
        if (c != 'u') {
            return Fail("unknown escape");
        }
        unsigned long codePoint = 0;
        if (!ReadHex4(codePoint)) {
            return false;
        }
        if (codePoint >= 0xD800 && codePoint < 0xDC00 && !ReadLowSurrogate(codePoint)) {
            return false;
        }
        if (codePoint >= 0xDC00 && codePoint <= 0xDFFF) {
            return Fail("unpaired surrogate");
        }
        AppendUtf8(out, codePoint);
        return true;
    }

    // Characters beyond the first plane come as two escapes; `codePoint` holds the first on entry.
    bool ReadLowSurrogate(unsigned long &codePoint)
    {
        unsigned long low = 0;
        if (text_.compare(pos_, 2, "\\u") != 0) {
            return Fail("unpaired surrogate");
        }
        pos_ += 2;
        if (!ReadHex4(low)) {
            return false;
        }
        if (low < 0xDC00 || low > 0xDFFF) {
            return Fail("unpaired surrogate");
        }
        codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
        return true;
    }

    bool ReadHex4(unsigned long &value)
    {
        if (pos_ + 4 > text_.size()) {
            return Fail("short \\u escape");
        }
        for (int i = 0; i < 4; ++i) {
            const char c = text_[pos_++];
            const std::string digits = "0123456789abcdef";
            const std::size_t digit = digits.find(static_cast<char>(c | 0x20));
            if (c == '\0' || digit == std::string::npos) {
                return Fail("bad \\u escape");
            }
            value = value * 16 + digit;
        }
        return true;
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    std::string error_;
};

}  // namespace

std::string JsonString(const std::string &text)
{
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
                    out += escaped;
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string FormatJsonObject(const JsonObject &object)
{
    std::string out = "{";
    for (const auto &entry : object) {
        out += (out.size() > 1 ? ", " : "") + JsonString(entry.first) + ": " + JsonString(entry.second);
    }
    return out + "}";
}

bool ParseJsonObject(std::string_view text, JsonObject &object, std::string &error)
{
    Reader reader(text);
    if (reader.ReadObject(object)) {
        return true;
    }
    error = reader.Error();
    return false;
}

}  // namespace OvraCli
