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
