#include "base/JsonReader.h"

#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace velmora {

using nlohmann::json;

namespace {

// Bytes that stand for themselves in a string.
constexpr std::array<bool, 256> plainBytes = [] {
    std::array<bool, 256> plain{};
    for (unsigned c = 0x20; c < 0x80; ++c)
        plain[c] = c != '"' && c != '\\';
    return plain;
}();

bool isPlain(char c) { return plainBytes[static_cast<unsigned char>(c)]; }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

void putUtf8(std::string& out, unsigned code) {
    const auto put = [&](unsigned byte) { out += static_cast<char>(byte); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | code >> 6);
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3F));
        put(0x80 | (code >> 6 & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

} // namespace

JsonReader::JsonReader(std::string_view text) : text_(text) {
    constexpr std::string_view mark = "\xEF\xBB\xBF"; // some editors put it ahead of UTF-8
    if (text_.starts_with(mark))
        at_ = mark.size();
}

void JsonReader::fail(const char* what) const {
    throw FormatError(std::string(what) + " at byte " + std::to_string(at_) + " of the JSON");
}

void JsonReader::blanks() noexcept {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\r' || text_[at_] == '\t'))
        ++at_;
}

char JsonReader::peek() {
    blanks();
    if (at_ == text_.size())
        fail("unexpected end");
    return text_[at_];
}

JsonReader::Kind JsonReader::kind() {
    switch (const char c = peek()) {
    case '{':
        return Kind::object;
    case '[':
        return Kind::array;
    case '"':
        return Kind::string;
    case 't':
    case 'f':
        return Kind::boolean;
    case 'n':
        return Kind::null;
    default:
        if (c != '-' && !isDigit(c))
            fail("no value");
        return Kind::number;
    }
}

void JsonReader::word(std::string_view expected) {
    if (!text_.substr(at_).starts_with(expected))
        fail("no value");
    at_ += expected.size();
}

bool JsonReader::isNull() {
    if (kind() != Kind::null)
        return false;
    word("null");
    return true;
}

void JsonReader::open(char bracket) {
    if (peek() != bracket)
        fail(bracket == '{' ? "no object" : "no list");
    ++at_;
    if (++depth_ > Json::maxDepth)
        throw FormatError("JSON is nested too deeply");
}

bool JsonReader::closes(char bracket, bool first) {
    if (peek() == bracket) {
        ++at_;
        return true;
    }
    if (first)
        return false;
    if (text_[at_] != ',')
        fail("no comma");
    ++at_;
    return false;
}

std::string_view JsonReader::key() {
    if (peek() != '"')
        fail("no key");
    const std::string_view name = text(key_);
    if (peek() != ':')
        fail("no colon");
    ++at_;
    return name;
}

std::string JsonReader::string() {
    if (kind() != Kind::string)
        fail("no text");
    std::string unescaped;
    const std::string_view whole = text(unescaped);
    return whole.data() == unescaped.data() ? std::move(unescaped) : std::string(whole);
}

// What stands between the quotes: a piece of the text itself, or of `unescaped` where it has escapes.
std::string_view JsonReader::text(std::string& unescaped) {
    const std::size_t begin = ++at_;
    std::size_t copied = begin; // up to here it is in `unescaped`
    bool isCopied = false;
    while (true) {
        while (at_ < text_.size() && isPlain(text_[at_]))
            ++at_;
        if (at_ == text_.size())
            fail("unexpected end");
        const auto c = static_cast<unsigned char>(text_[at_]);
        if (c == '"') {
            const std::string_view rest = text_.substr(copied, at_++ - copied);
            return isCopied ? std::string_view(unescaped.append(rest)) : rest;
        }
        if (c == '\\') {
            if (!std::exchange(isCopied, true))
                unescaped.clear();
            unescaped.append(text_, copied, at_ - copied);
            ++at_;
            escape(unescaped);
            copied = at_;
        } else if (c < 0x20) {
            fail("a control character in a text");
        } else {
            sequence();
        }
    }
}

void JsonReader::escape(std::string& out) {
    constexpr std::string_view letters = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
    const char c = at_ < text_.size() ? text_[at_++] : '\0';
    if (const std::size_t found = letters.find(c); found != std::string_view::npos) {
        out += meant[found];
        return;
    }
    if (c != 'u')
        fail("a wrong escape");
    unsigned code = hex4();
    if (code >= 0xD800 && code < 0xDC00) { // the first half of a pair
        word("\\u");
        const unsigned low = hex4();
        if (low < 0xDC00 || low > 0xDFFF)
            fail("half a pair");
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    } else if (code >= 0xDC00 && code < 0xE000) {
        fail("half a pair");
    }
    putUtf8(out, code);
}

unsigned JsonReader::hex4() {
    unsigned code = 0;
    const std::string_view digits = text_.substr(at_, 4);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), code, 16);
    if (digits.size() != 4 || error != std::errc() || end != digits.data() + 4)
        fail("a wrong escape");
    at_ += 4;
    return code;
}

// One character of several bytes: neither longer than need be, nor half a pair, nor beyond U+10FFFF.
void JsonReader::sequence() {
    const auto byte = [&](std::size_t i) {
        return at_ + i < text_.size() ? static_cast<unsigned char>(text_[at_ + i]) : 0U;
    };
    const unsigned first = byte(0);
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    unsigned low = 0x80, high = 0xBF; // of the second byte
    if (first == 0xE0)
        low = 0xA0;
    else if (first == 0xED)
        high = 0x9F;
    else if (first == 0xF0)
        low = 0x90;
    else if (first == 0xF4)
        high = 0x8F;
    bool good = first >= 0xC2 && first <= 0xF4 && byte(1) >= low && byte(1) <= high;
    for (std::size_t i = 2; i < length; ++i)
        good = good && (byte(i) & 0xC0) == 0x80;
    if (!good)
        fail("invalid UTF-8");
    at_ += length;
}

json JsonReader::number() {
    const std::size_t begin = at_;
    const auto digits = [&] {
        const std::size_t first = at_;
        while (at_ < text_.size() && isDigit(text_[at_]))
            ++at_;
        if (at_ == first)
            fail("a wrong number");
    };
    const auto takes = [&](std::string_view any) {
        const bool found = at_ < text_.size() && any.find(text_[at_]) != std::string_view::npos;
        at_ += found ? 1 : 0;
        return found;
    };
    const bool negative = takes("-");
    if (!takes("0"))
        digits();
    bool whole = true;
    if (takes(".")) {
        whole = false;
        digits();
    }
    if (takes("eE")) {
        whole = false;
        takes("+-");
        digits();
    }
    const char* const from = text_.data() + begin;
    const char* const to = text_.data() + at_;
    // What no integer holds is a number all the same.
    if (std::int64_t n = 0; whole && negative && std::from_chars(from, to, n).ec == std::errc())
        return n;
    if (std::uint64_t n = 0; whole && !negative && std::from_chars(from, to, n).ec == std::errc())
        return n;
    double value = 0;
    if (std::from_chars(from, to, value).ec != std::errc()) {
        value = std::strtod(std::string(from, to).c_str(), nullptr); // it tells too small from too large
        if (!std::isfinite(value))
            fail("a number without bounds");
    }
    return value;
}

json JsonReader::value() {
    switch (kind()) {
    case Kind::null:
        word("null");
        return nullptr;
    case Kind::boolean: {
        const bool yes = text_[at_] == 't';
        word(yes ? "true" : "false");
        return yes;
    }
    case Kind::number:
        return number();
    case Kind::string:
        return string();
    case Kind::array: {
        json list = json::array();
        array([&] { list.push_back(value()); });
        return list;
    }
    case Kind::object:
        break;
    }
    json result = json::object();
    auto& members = result.get_ref<json::object_t&>();
    object([&](std::string_view name) {
        std::string member(name);
        // Our own records have their keys in order: the place of the next one is known.
        members.insert_or_assign(members.end(), std::move(member), value());
    });
    return result;
}

void JsonReader::skip() {
    switch (kind()) {
    case Kind::object:
        object([&](std::string_view) { skip(); });
        break;
    case Kind::array:
        array([&] { skip(); });
        break;
    case Kind::string:
        text(key_);
        break;
    default:
        value();
    }
}

void JsonReader::end() {
    blanks();
    if (at_ != text_.size())
        fail("more than one value");
}

} // namespace velmora
