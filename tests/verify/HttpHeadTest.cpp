#include "verify/HttpHead.h"

#include "verify/TapRegistry.h"

namespace velmora {
namespace {

const HttpHead::Address address{5000, "00112233445566778899aabbccddeeff"};
const std::string token = "/" + address.token + "/";
const std::string host = "Host: 127.0.0.1:5000\r\n";

// The source "ab" holds 1,000 bytes, "e0" none; there is no other.
HttpHead::Answer answer(const std::string& head) {
    return HttpHead::answer(head, address, [](std::string_view id) {
        return id == "ab"   ? std::optional(std::int64_t{1000})
               : id == "e0" ? std::optional(std::int64_t{0})
                            : std::nullopt;
    });
}

TEST(HttpHead, AnswersEachRequestInItsOwnWay) {
    const std::string get = "GET " + token + "ab/A.mov HTTP/1.1\r\n" + host;
    const std::string empty = "GET " + token + "e0/A.mov HTTP/1.1\r\n" + host;
    const auto target = [](const std::string& path) { return "GET " + path + " HTTP/1.1\r\n" + host; };
    const std::string type = "Content-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\n";
    const std::string ok = "HTTP/1.1 200 OK\r\n" + type;
    const std::string some = "HTTP/1.1 206 Partial Content\r\n" + type;
    const std::string close = "Connection: close\r\n";
    const std::string keep = "Connection: keep-alive\r\n";
    const std::string whole = ok + "Content-Length: 1000\r\n";
    const std::string bad = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n" + close;
    const std::string none = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n";
    const std::string method = "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\nContent-Length: 0\r\n" + close;
    const std::string unsatisfiable = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */";
    struct Case {
        std::string request; // without the empty line at its end
        std::string answer;
        ByteRange body;
        bool keepsOpen;
    };
    const std::vector<Case> cases = {
        {get, whole + keep, {0, 1000}, true},
        {get + "CONNECTION:\tClose \r\n", whole + close, {0, 1000}, false},
        {get + "connection: close, te\r\n", whole + keep, {0, 1000}, true},
        {"GET " + token + "ab/ HTTP/1.0\r\nConnection: keep-alive\r\n" + host, whole + close, {0, 1000}, false},
        {"GET  " + token + "ab/.. HTTP/1.9 \r\nhost:127.0.0.1:5000\r\n", whole + keep, {0, 1000}, true},
        {"HEAD " + token + "ab/A.mov HTTP/1.1\r\n" + host, whole + keep, {}, true},
        {get + "Range: bytes=0-0\r\n",
         some + "Content-Length: 1\r\nContent-Range: bytes 0-0/1000\r\n" + keep,
         {0, 1},
         true},
        {get + "Range: bytes=0-0\r\nRANGE: Bytes=-500\r\n" + close,
         some + "Content-Length: 500\r\nContent-Range: bytes 500-999/1000\r\n" + close,
         {500, 500},
         false},
        {"HEAD " + token + "ab/A.mov HTTP/1.1\r\nRange: bytes=998-\r\n" + host,
         some + "Content-Length: 2\r\nContent-Range: bytes 998-999/1000\r\n" + keep,
         {},
         true},
        {get + "Range: bytes=1000-\r\n", unsatisfiable + "1000\r\nContent-Length: 0\r\n", {}, true},
        {get + "Range:\r\n" + close, unsatisfiable + "1000\r\nContent-Length: 0\r\n" + close, {}, false},
        {empty, ok + "Content-Length: 0\r\n" + keep, {}, true},
        {empty + "Range: bytes=0-\r\n", unsatisfiable + "0\r\nContent-Length: 0\r\n", {}, true},
        {"POST / HTTP/1.1\r\n", method, {}, false},
        {"get " + token + "ab/A.mov HTTP/1.1\r\n" + host, method, {}, false},
        {"GET / HTTP/1.1\r\n", bad, {}, false},
        {"GET " + token + "ab/A.mov HTTP/1.1\r\nHost: localhost:5000\r\n", bad, {}, false},
        {get + "Host: velmora.example\r\n", bad, {}, false},
        {"GET / HTTP/2\r\n" + host, bad, {}, false},
        {"GET /\r\n" + host, bad, {}, false},
        {"GET / HTTP/1.1 x\r\n" + host, bad, {}, false},
        {get + "no colon\r\n", bad, {}, false},
        {get + ": no name\r\n", bad, {}, false},
        {"", bad, {}, false},
        {target("/00112233445566778899aabbccddeefe/ab/A.mov"), none, {}, true},
        {target("/10112233445566778899aabbccddeeff/ab/A.mov") + close, none + close, {}, false},
        {target("/0011/ab/A.mov"), none, {}, true},
        {target(token + "abc/A.mov"), none, {}, true},
        {target(token + "xy/A.mov"), none, {}, true},
        {target(token + "/A.mov"), none, {}, true},
        {target(token + "ab"), none, {}, true},
        {target(token + "ab/../A.mov"), none, {}, true},
        {target("x" + token + "ab/A.mov"), none, {}, true},
        {target("http://127.0.0.1:5000" + token + "ab/A.mov"), none, {}, true},
    };
    for (const Case& c : cases) {
        const HttpHead::Answer got = answer(c.request + "\r\n");
        EXPECT_EQ(got.head, c.answer + "\r\n") << c.request;
        EXPECT_EQ(got.body, c.body) << c.request;
        EXPECT_EQ(got.keepsOpen, c.keepsOpen) << c.request;
        EXPECT_EQ(std::to_string(got.status), got.head.substr(9, 3));
    }
}

TEST(HttpHead, TakesOneRangeThatTheFileHas) {
    const std::optional<ByteRange> none;
    const std::vector<std::tuple<std::string, std::int64_t, std::optional<ByteRange>>> cases = {
        {"bytes=0-", 10, ByteRange{0, 10}},
        {"BYTES= 2 - 4 ", 10, ByteRange{2, 3}},
        {"bytes=9-9223372036854775807", 10, ByteRange{9, 1}},
        {"bytes=9-9223372036854775808", 10, none},
        {"bytes=-9223372036854775807", 10, ByteRange{0, 10}},
        {"bytes=-3", 10, ByteRange{7, 3}},
        {"bytes=-0", 10, none},
        {"bytes=-1", 0, none},
        {"bytes=0-", 0, none},
        {"bytes=10-", 10, none},
        {"bytes=5-2", 10, none},
        {"bytes=0-1,3-4", 10, none},
        {"bytes=+1-2", 10, none},
        {"bytes=1-+2", 10, none},
        {"bytes=1--2", 10, none},
        {"bytes=--2", 10, none},
        {"bytes=-", 10, none},
        {"bytes=3", 10, none},
        {"bytes =0-", 10, none},
        {"bytes", 10, none},
        {"items=0-1", 10, none},
        {"bytes=0x1-2", 10, none},
    };
    for (const auto& [value, length, range] : cases)
        EXPECT_EQ(HttpHead::parseRange(value, length), range) << value;
}

// What arrives in which pieces, and the heads that come out of it; "!" where the connection is not worth an answer.
TEST(HttpHead, CutsHeadsOutOfWhateverPiecesArrive) {
    const std::string end = "\r\n\r\n";
    const std::string longest(HttpHead::maxBytes - end.size(), 'a');
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
        {{"a\r\n", "\r", "\nb" + end + "c" + end + "d"}, {"a" + end, "b" + end, "c" + end}},
        {{end}, {end}},
        {{longest, end + longest + "a"}, {longest + end}},
        {{longest + "a" + end}, {"!"}},
        {{longest + "aaaaa"}, {"!"}},
        {{"a\x80"}, {"!"}},
        {{"a" + end + "\x80"}, {"a" + end, "!"}},
    };
    for (const auto& [pieces, heads] : cases) {
        HttpHead::Inbox inbox;
        std::vector<std::string> got;
        for (const std::string& piece : pieces) {
            inbox.append(piece);
            while (const auto head = inbox.next())
                got.push_back(*head);
        }
        if (inbox.isBroken())
            got.emplace_back("!");
        EXPECT_EQ(got, heads);
    }
}

TEST(HttpHead, NamesAClipInAnAddress) {
    const std::vector<std::pair<std::string, std::string>> names = {{"DCIM/A001 C1.MOV", "A001_C1.MOV"},
                                                                    {"Straße-😀_1.mp4", "Stra_e-__1.mp4"},
                                                                    {"x\xff\xfe.mxf", "x__.mxf"},
                                                                    {"", "clip"},
                                                                    {"a%2f?b&c", "a_2f_b_c"}};
    for (const auto& [path, name] : names)
        EXPECT_EQ(HttpHead::urlName(path), name);
    EXPECT_EQ(HttpHead::idOf("http://127.0.0.1:1/t/0a/x"), "0a");
    for (const char* other : {"", "http://127.0.0.1:1/t", "file:///t/0a/x", "/t/0a/x"})
        EXPECT_FALSE(HttpHead::idOf(other)) << other;
}

TEST(TapRegistry, TapsWhatItsReaderCanReadThroughAServer) {
    const std::vector<std::tuple<ClipFormat, std::string, TapMode>> clips = {
        {ClipFormat::video, "A/B.MOV", TapMode::http},  {ClipFormat::video, "B.mp4", TapMode::http},
        {ClipFormat::video, "B.Mxf", TapMode::http},    {ClipFormat::video, "B.m4v", TapMode::none},
        {ClipFormat::video, "mov", TapMode::none},      {ClipFormat::braw, "B.braw", TapMode::preRead},
        {ClipFormat::r3d, "B.R3D", TapMode::preRead},   {ClipFormat::arriraw, "B", TapMode::preRead},
        {ClipFormat::canonRaw, "B.mp4", TapMode::none}, {ClipFormat::unknown, "B.mov", TapMode::none},
    };
    for (const auto& [format, path, mode] : clips) {
        Clip clip;
        clip.format = format;
        clip.path = path;
        EXPECT_EQ(TapRegistry::mode(clip), mode) << path;
    }
}

} // namespace
} // namespace velmora
