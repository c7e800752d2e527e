#include "verify/HttpHead.h"

#include "base/RelativePath.h"
#include "base/Text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <map>
#include <span>
#include <vector>

namespace velmora {

namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view headEnd = "\r\n\r\n";

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lower(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), lowerAscii);
    return result;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isHexDigit(char c) { return isDigit(c) || (lowerAscii(c) >= 'a' && lowerAscii(c) <= 'f'); }

std::string_view trimBlanks(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    const std::size_t first = text.find_first_not_of(blanks);
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool isAscii(std::string_view text) {
    return std::ranges::none_of(text, [](char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; });
}

std::vector<std::string_view> linesOf(std::string_view head) {
    std::vector<std::string_view> lines;
    while (!head.empty()) {
        const std::size_t end = std::min(head.find(lineEnd), head.size());
        if (end > 0)
            lines.push_back(head.substr(0, end));
        head.remove_prefix(std::min(end + lineEnd.size(), head.size()));
    }
    return lines;
}

std::optional<std::int64_t> number(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || !isDigit(text.front()) || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

struct Request {
    bool isHead = false;
    std::string_view target;
    std::map<std::string, std::string_view> headers; // names in lower case; the last of several counts
    bool closing = false;

    std::optional<std::string_view> header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? std::nullopt : std::optional(found->second);
    }
};

constexpr int ok = 200;
constexpr int partialContent = 206;
constexpr int badRequest = 400;
constexpr int notFound = 404;
constexpr int methodNotAllowed = 405;
constexpr int rangeNotSatisfiable = 416;

std::string_view reason(int status) {
    switch (status) {
    case ok:
        return "OK";
    case partialContent:
        return "Partial Content";
    case notFound:
        return "Not Found";
    case methodNotAllowed:
        return "Method Not Allowed";
    case rangeNotSatisfiable:
        return "Range Not Satisfiable";
    default:
        return "Bad Request";
    }
}

// An answer without a body. `first` is the line of a header that stands before the others.
HttpHead::Answer refusal(int status, bool closing, const std::string& first = {}) {
    HttpHead::Answer answer;
    answer.status = status;
    answer.head = fmt::format("HTTP/1.1 {} {}\r\n{}Content-Length: 0\r\n{}\r\n", status, reason(status), first,
                              closing ? "Connection: close\r\n" : "");
    answer.keepsOpen = !closing;
    return answer;
}

HttpHead::Answer content(const Request& request, bool isPartial, ByteRange range, std::int64_t length) {
    HttpHead::Answer answer;
    answer.status = isPartial ? partialContent : ok;
    answer.head = fmt::format(
        "HTTP/1.1 {} {}\r\nContent-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\nContent-Length: {}\r\n",
        answer.status, reason(answer.status), range.length);
    if (isPartial)
        answer.head +=
            fmt::format("Content-Range: bytes {}-{}/{}\r\n", range.offset, range.offset + range.length - 1, length);
    answer.head += request.closing ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
    if (!request.isHead)
        answer.body = range;
    answer.keepsOpen = !request.closing;
    return answer;
}

// The status for a request that must be refused; 0 for a good one.
int parse(std::string_view head, Request& request) {
    const std::vector<std::string_view> lines = linesOf(head);
    const auto first = lines.empty() ? std::vector<std::string_view>{} : split(lines.front(), ' ', false);
    if (first.size() != 3 || !first[2].starts_with("HTTP/1."))
        return badRequest;
    for (const std::string_view line : std::span(lines).subspan(1)) {
        const std::size_t colon = line.find(':');
        if (colon == 0 || colon == std::string_view::npos)
            return badRequest;
        request.headers[lower(trimBlanks(line.substr(0, colon)))] = trimBlanks(line.substr(colon + 1));
    }
    request.target = first[1];
    request.closing = first[2] == "HTTP/1.0" || lower(request.header("connection").value_or("")) == "close";
    request.isHead = first[0] == "HEAD";
    return request.isHead || first[0] == "GET" ? 0 : methodNotAllowed;
}

} // namespace

std::optional<std::string> HttpHead::Inbox::next() {
    const std::size_t end = data_.find(headEnd);
    const bool isWhole = end != std::string::npos;
    const std::size_t length = isWhole ? end + headEnd.size() : data_.size();
    broken_ = broken_ || length > maxBytes || !isAscii(std::string_view(data_).substr(0, length));
    if (broken_ || !isWhole)
        return std::nullopt;
    std::string head = data_.substr(0, length);
    data_.erase(0, length);
    return head;
}

HttpHead::Answer HttpHead::answer(std::string_view head, const Address& address,
                                  const std::function<std::optional<std::int64_t>(std::string_view id)>& lengthOf) {
    Request request;
    if (const int status = parse(head, request); status != 0)
        return refusal(status, true, status == methodNotAllowed ? "Allow: GET, HEAD\r\n" : "");
    // A web page may point a browser at this port. Then the Host header holds the name from that page, not 127.0.0.1.
    if (lower(request.header("host").value_or("")) != fmt::format("127.0.0.1:{}", address.port))
        return refusal(badRequest, true);
    const auto id = parseTarget(request.target, address.token);
    const auto length = id ? lengthOf(*id) : std::nullopt;
    if (!length)
        return refusal(notFound, request.closing);
    const auto wanted = request.header("range");
    if (!wanted)
        return content(request, false, {0, *length}, *length);
    const auto range = parseRange(*wanted, *length);
    if (!range)
        return refusal(rangeNotSatisfiable, request.closing, fmt::format("Content-Range: bytes */{}\r\n", *length));
    return content(request, true, *range, *length);
}

std::optional<ByteRange> HttpHead::parseRange(std::string_view value, std::int64_t length) {
    constexpr std::string_view unit = "bytes=";
    if (lower(value.substr(0, unit.size())) != unit)
        return std::nullopt;
    const std::string_view range = trimBlanks(value.substr(unit.size()));
    const std::size_t dash = range.find('-');
    if (range.find(',') != std::string_view::npos || dash == std::string_view::npos)
        return std::nullopt;
    const std::string_view before = trimBlanks(range.substr(0, dash));
    const std::string_view after = trimBlanks(range.substr(dash + 1));
    if (before.empty()) {
        const auto last = number(after);
        if (!last || *last == 0 || length == 0)
            return std::nullopt;
        const std::int64_t start = length - std::min(*last, length);
        return ByteRange{start, length - start};
    }
    const auto start = number(before);
    const auto end = after.empty() ? length - 1 : number(after);
    if (!start || *start >= length || !end || *end < *start)
        return std::nullopt;
    return ByteRange{*start, std::min(*end, length - 1) - *start + 1};
}

std::optional<std::string_view> HttpHead::parseTarget(std::string_view target, std::string_view token) {
    const std::vector<std::string_view> parts = split(target, '/');
    if (parts.size() != 4 || !parts[0].empty() || parts[1].size() != token.size())
        return std::nullopt;
    unsigned differing = 0;
    for (std::size_t i = 0; i < token.size(); ++i)
        differing |= static_cast<unsigned char>(parts[1][i]) ^ static_cast<unsigned char>(token[i]);
    if (differing != 0 || parts[2].empty() || !std::ranges::all_of(parts[2], isHexDigit))
        return std::nullopt;
    return parts[2];
}

std::string HttpHead::urlName(std::string_view path) {
    constexpr std::string_view plain = "-._";
    std::string name;
    for (const char c : withValidUtf8(RelativePath::name(path))) {
        const bool isLetter = lowerAscii(c) >= 'a' && lowerAscii(c) <= 'z';
        if (isLetter || isDigit(c) || plain.find(c) != std::string_view::npos)
            name += c;
        else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) // the first byte of a character
            name += '_';
    }
    return name.empty() ? "clip" : name;
}

std::optional<std::string_view> HttpHead::idOf(std::string_view url) {
    constexpr std::string_view scheme = "http://";
    if (!url.starts_with(scheme))
        return std::nullopt;
    // The host stands where a path has the empty text before its first "/".
    const std::vector<std::string_view> parts = split(url.substr(scheme.size()), '/');
    return parts.size() > 2 ? std::optional(parts[2]) : std::nullopt;
}

} // namespace velmora
