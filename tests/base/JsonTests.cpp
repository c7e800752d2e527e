#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {
namespace {

using nlohmann::json;
using namespace std::string_literals;

TEST(Json, RefusesHostileTextsWithoutFallingOver) {
    const auto nested = [](std::size_t depth, const char* open, const char* close) {
        std::string text;
        for (std::size_t i = 0; i < depth; ++i)
            text += open;
        text += "1";
        for (std::size_t i = 0; i < depth; ++i)
            text += close;
        return text;
    };
    EXPECT_NO_THROW(Json::parse(nested(Json::maxDepth, "[", "]")));
    EXPECT_NO_THROW(Json::parse(nested(Json::maxDepth, "{\"a\":", "}")));
    for (const std::string& text :
         {nested(Json::maxDepth + 1, "[", "]"), nested(1'000'000, "[", "]"), nested(1'000'000, "{\"a\":", "}"), ""s,
          "{"s, "[1,]"s, "{\"a\":1}x"s, "nul"s, "\"\xFF\""s, "\"\xED\xA0\x80\""s, "\"\\ud800\""s, "{\"a\":1e999}"s,
          "\0"s, "\"a\nb\""s, "{'a':1}"s, "{a:1}"s, "[1 2]"s})
        EXPECT_THROW(Json::parse(text), FormatError) << text.substr(0, 40);
    EXPECT_EQ(Json::parse("{\"a\":1,\"b\":[],\"a\":{\"c\":[null,true,-1,2.5]}}").dump(),
              "{\"a\":{\"c\":[null,true,-1,2.5]},\"b\":[]}");
    EXPECT_EQ(Json::parse(" \"\\ud83c\\udfac\" "), "🎬");
}

// Every text near some good one is read, or refused, as the library does it.
TEST(Json, ReadsWhatTheLibraryReads) {
    const std::string texts[] = {
        R"( {"a" : [ ] , "b":{},"b":[true,false,null] } )", R"(["\"\\\/\b\f\n\r\t","\u00e9\ud83c\udfac","a\u0000b"])",
        "[-0,0,10,-1.5e3,2E+7,1e-400,9223372036854775808,18446744073709551616,-9223372036854775809]",
        "\xEF\xBB\xBF[\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC\xEF\xBF\xBF\xF4\x8F\xBF\xBF\xE0\xA0\x80\xED\x9F\xBF\"]"};
    const std::string bytes =
        "\t\n\x1F \"+,-./0159:[\\]eEfnrtu{}\x7F\x80\x90\x9F\xA0\xBF\xC1\xC3\xE0\xED\xF0\xF4\xF5\xFF";
    const auto compare = [](const std::string& text) {
        const json expected = json::parse(text, nullptr, false);
        try {
            EXPECT_EQ(Json::parse(text).dump(), expected.dump()) << text;
        } catch (const FormatError&) {
            EXPECT_TRUE(expected.is_discarded()) << text;
        }
    };
    for (const std::string& text : texts)
        for (std::size_t at = 0; at <= text.size(); ++at) {
            compare(text.substr(0, at));
            for (const char byte : bytes) {
                compare(text.substr(0, at) + byte + text.substr(at));
                if (at < text.size())
                    compare(text.substr(0, at) + byte + text.substr(at + 1));
            }
        }
}

TEST(Json, WritesSortedUnescapedAndWhateverTheBytes) {
    json j = {{"b/c", "x/y \"\\ \n"}, {"a", 1}};
    EXPECT_EQ(Json::compact(j), R"({"a":1,"b/c":"x/y \"\\ \n"})");
    EXPECT_EQ(Json::compact(json("a\xFFz")), "\"a\uFFFDz\"");
    EXPECT_EQ(Json::pretty(json("\xED\xA0\x80")).front(), '"');
}

TEST(Json, StreamsOneListWithTheVeryBytesOfTheWhole) {
    const json elements = {
        {{"z", 1}, {"text", "line\nfeed"}}, {{"deep", {{"er", {1, 2}}}}}, json::object(), "plain", nullptr};
    for (const char* key : {"a", "files", "zz"})
        for (const std::size_t count : {std::size_t{0}, std::size_t{1}, elements.size(), std::size_t{1000}})
            for (const json& rest : {json{{"b", {1, 2}}, {"m", json::array()}, {"x", {{"y", "z"}}}}, json::object()}) {
                json whole = rest;
                whole[key] = json::array();
                for (std::size_t i = 0; i < count; ++i)
                    whole[key].push_back(elements[i % elements.size()]);
                const auto element = [&](std::size_t i) { return elements[i % elements.size()]; };
                const std::string text = Json::prettyStreaming(rest, key, count, element);
                ASSERT_EQ(text, Json::pretty(whole));
                json list = json::array();
                json back =
                    Json::parseStreaming(text, key, [&](json&& e) { list.push_back(std::move(e)); }, [] { FAIL(); });
                EXPECT_EQ(back[key], json::array());
                EXPECT_EQ(list, whole[key]);
                back.erase(key);
                EXPECT_EQ(back, rest);
            }
}

TEST(Json, StreamsOnlyTheListOfTheOutermostObject) {
    std::vector<json> got;
    int restarts = 0;
    const auto stream = [&](const char* text) {
        got.clear();
        restarts = 0;
        return Json::parseStreaming(
            text, "files", [&](json&& e) { got.push_back(std::move(e)); },
            [&] {
                got.clear();
                ++restarts;
            });
    };
    EXPECT_EQ(stream(R"({"a":{"files":[1,2]},"files":[[{"files":[3]}],4]})").dump(),
              R"({"a":{"files":[1,2]},"files":[]})");
    EXPECT_EQ(json(got).dump(), R"([[{"files":[3]}],4])");
    stream(R"({"files":[1,2],"files":[3]})");
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(json(got).dump(), "[3]");
    EXPECT_EQ(stream(R"({"files":{"x":[1]}})").dump(), R"({"files":{"x":[1]}})");
    EXPECT_EQ(stream(R"([[1]])").dump(), "[[1]]");
    EXPECT_TRUE(got.empty());
}

TEST(JsonFields, ReadStrictlyOrTolerantly) {
    const json good = {{"s", "text"},     {"b", true},      {"i", 5},
                       {"n", 2.5},        {"w", 7.0},       {"t", "2026-03-14T08:30:05Z"},
                       {"l", {"a", "b"}}, {"null", nullptr}};
    const JsonFields strict(good);
    const JsonFields tolerant(good, JsonFields::Reading::tolerant);
    const auto reads = [&](const std::string& keys, const std::string& others, auto read) {
        for (const char key : keys)
            EXPECT_TRUE(read(strict, std::string(1, key).c_str()) && read(tolerant, std::string(1, key).c_str()))
                << key;
        for (const char key : others) {
            EXPECT_THROW(read(strict, std::string(1, key).c_str()), FormatError) << key;
            EXPECT_FALSE(read(tolerant, std::string(1, key).c_str())) << key;
        }
        EXPECT_FALSE(read(strict, "null") || read(strict, "absent"));
    };
    reads("st", "binl", [](const auto& f, const char* key) { return f.optionalString(key); });
    reads("b", "sil", [](const auto& f, const char* key) { return f.optionalBoolean(key); });
    reads("iw", "sbnl", [](const auto& f, const char* key) { return f.optionalInteger(key); });
    reads("w", "i", [](const auto& f, const char* key) { return f.optionalInteger(key, 6, 9); });
    reads("inw", "sbtl", [](const auto& f, const char* key) { return f.optionalNumber(key); });
    reads("t", "sbnl", [](const auto& f, const char* key) { return f.optionalTimestamp(key); });
    reads("l", "sbn", [](const auto& f, const char* key) { return f.optionalStrings(key); });
    EXPECT_EQ(strict.optionalTimestamp("t")->seconds, 1'773'477'005);
    EXPECT_EQ(strict.string("s"), "text");
    EXPECT_THROW(strict.string("null"), FormatError);
    EXPECT_THROW(strict.require("absent"), FormatError);

    const json list = json::array();
    EXPECT_THROW(JsonFields{list}, FormatError);
    EXPECT_FALSE(JsonFields(list, JsonFields::Reading::tolerant).optionalString("s"));
}

TEST(Json, NumbersNeverOverflow) {
    for (const auto& [text, value] : std::vector<std::pair<const char*, std::optional<std::int64_t>>>{
             {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
             {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
             {"9223372036854775808", std::nullopt},
             {"18446744073709551615", std::nullopt},
             {"1e300", std::nullopt},
             {"-1e300", std::nullopt},
             {"9.3e18", std::nullopt},
             {"1.5", std::nullopt},
             {"2e3", 2000}})
        EXPECT_EQ(Json::as<std::int64_t>(Json::parse(text)), value) << text;
}

} // namespace
} // namespace velmora
