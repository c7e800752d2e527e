#include "base/JsonFields.h"
#include "platform/FileLock.h"
#include "platform/IO.h"
#include "settings/SettingsFields.h"
#include "settings/SettingsKeys.h"
#include "settings/SettingsStore.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace velmora {
namespace {

using nlohmann::json;
using test::TempFolder;

// Every key with a value that is not its default.
const char* const fullText =
    R"({"analyzeClips":false,"appearance":"light","autoDestinations":false,"destRoots":["/a","/b"],"hash":"both",
        "ignoredVolumes":["/v"],"naming":{"suggestFromClips":false},"oneJobAtATime":true,
        "outputs":{"clipListAle":true,"clipListCsv":false,"dayReport":false},"portNames":{"p1":"left"},
        "proxy":{"audio":false,"bitrateMbps":25,"burnFilename":false,"burnTimecode":false,"codec":"hevc",
          "copyToAllDestinations":false,"enabled":true,"extraFolder":"/x","frameAspect":2.39,"frameScale":0.9,
          "height":720,"lutBuiltin":"known","lutFallback":"known","lutMode":"custom","lutPath":"/l.cube",
          "skipCameraProxies":false,"skipLighterSources":false},
        "tools":{"artCmd":"/t/a","brawDecoder":"/t/b","ffmpeg":"/t/f","ffprobe":"/t/p","redline":"/t/r"},
        "verify":false,"verifyInProxy":false,"verifyPrimary":"first"})";

const LutIds luts = std::vector<std::string>{"known", "other"};

json encoded(const AppSettings& settings) { return Json::parse(SettingsStore::encode(settings)); }

TEST(SettingsStore, HoldsEveryKeyOfTheRecord) {
    const json full = json::parse(fullText);
    const AppSettings settings = SettingsStore::decode(fullText, luts);
    EXPECT_TRUE(settings.unreadable.empty());
    EXPECT_EQ(encoded(settings), full);
    for (const SettingLine& line : SettingsKeys::list(settings))
        EXPECT_FALSE(line.isDefault) << line.key << " was not read";
    std::size_t leaves = 0;
    for (const auto& [key, value] : full.items())
        leaves += value.is_object() && key != "portNames" ? value.size() : 1;
    EXPECT_EQ(SettingsFields::all().size(), leaves);

    AppSettings nothing = SettingsStore::decode("{}");
    EXPECT_EQ(nothing, AppSettings());
    nothing.raw = {};
    AppSettings again = SettingsStore::decode(SettingsStore::encode(nothing));
    again.raw = {};
    EXPECT_EQ(again, AppSettings());
    for (const SettingLine& line : SettingsKeys::list(nothing))
        EXPECT_TRUE(line.isDefault) << line.key;
}

TEST(SettingsStore, AMistakeInOneSettingLosesNothingElse) {
    const json full = json::parse(fullText);
    const auto check = [&](const std::string& path, const json& wrong, json changed) {
        SCOPED_TRACE(path + " = " + wrong.dump());
        const AppSettings settings = SettingsStore::decode(changed.dump(), luts);
        EXPECT_EQ(settings.unreadable, std::set<std::string>{path});
        EXPECT_EQ(encoded(settings), changed) << "the old value stays as it stands, all others too";
        for (const SettingLine& line : SettingsKeys::list(settings)) {
            const bool here = line.key == path || line.key.starts_with(path + ".");
            EXPECT_EQ(line.isDefault, here) << line.key;
            EXPECT_EQ(line.unreadable, here) << line.key;
        }
    };
    for (const SettingsField& field : SettingsFields::all())
        for (const json& wrong : {json(json::array({1})), json({{"a", 1}}), json(1e300), json(true), json("someday")}) {
            json changed = full;
            (field.section.empty() ? changed : changed[field.section])[field.key] = wrong;
            bool fits = true;
            try {
                field.checkType(wrong);
            } catch (const FormatError&) {
                fits = false;
            }
            if (!fits)
                check(field.path(), wrong, changed);
        }
    for (const char* section : {"proxy", "tools", "naming", "outputs"})
        for (const json& wrong : {json(1), json("text"), json::array()}) {
            json changed = full;
            changed[section] = wrong;
            check(section, wrong, changed);
        }
}

TEST(SettingsStore, KeepsWhatANewerVersionWrote) {
    json newer = json::parse(fullText);
    newer["sky"] = {{"deep", {1, 2.5, nullptr}}};
    for (const char* section : {"proxy", "naming", "outputs"})
        newer[section]["later"] = {"x"};
    AppSettings settings = SettingsStore::decode(newer.dump(), luts);
    EXPECT_EQ(encoded(settings), newer);
    SettingsKeys::set(settings, "proxy.lutPath", {""}); // what the user has taken out does not come back from below
    SettingsKeys::set(settings, "tools.ffmpeg", {""});
    SettingsKeys::set(settings, "verify", {"yes"});
    newer["proxy"].erase("lutPath");
    newer["tools"].erase("ffmpeg");
    newer["verify"] = true;
    EXPECT_EQ(encoded(settings), newer);
}

TEST(SettingsStore, BringsValuesIntoTheirBounds) {
    struct Case {
        const char *given, *key;
        std::vector<std::string> wanted;
    };
    for (const Case& c :
         std::vector<Case>{{R"({"proxy":{"height":1081}})", "proxy.height", {"1080"}},
                           {R"({"proxy":{"height":-9223372036854775808}})", "proxy.height", {"540"}},
                           {R"({"proxy":{"height":9223372036854775807}})", "proxy.height", {"2160"}},
                           {R"({"proxy":{"height":630}})", "proxy.height", {"540"}},
                           {R"({"proxy":{"bitrateMbps":0}})", "proxy.bitrateMbps", {"1"}},
                           {R"({"proxy":{"bitrateMbps":100000}})", "proxy.bitrateMbps", {"400"}},
                           {R"({"proxy":{"frameScale":0.1}})", "proxy.frameScale", {"1.0"}},
                           {R"({"proxy":{"frameScale":7}})", "proxy.frameScale", {"1.0"}},
                           {R"({"proxy":{"frameAspect":-1}})", "proxy.frameAspect", {}},
                           {R"({"proxy":{"lutPath":"  "}})", "proxy.lutPath", {}},
                           {R"({"proxy":{"lutFallback":"gone"}})", "proxy.lutFallback", {}},
                           {R"({"proxy":{"lutMode":"builtin","lutBuiltin":"gone"}})", "proxy.lutMode", {"auto"}},
                           {R"({"proxy":{"lutMode":"builtin","lutBuiltin":"known"}})", "proxy.lutMode", {"builtin"}},
                           {R"({"tools":{"ffmpeg":""}})", "tools.ffmpeg", {}},
                           {R"({"destRoots":["/b","","/a","/b"]})", "destRoots", {"/b", "/a"}},
                           {R"({"portNames":{"a":" left ","b":" "}})", "portNames", {"a=left"}}}) {
        const AppSettings settings = SettingsStore::decode(c.given, luts);
        EXPECT_EQ(SettingsKeys::show(settings, c.key).values, c.wanted) << c.given;
        EXPECT_TRUE(settings.unreadable.empty()) << c.given;
    }
    AppSettings odd;
    odd.hash = "crc32";
    odd.verifyPrimary = "";
    odd.appearance = "pink";
    odd.proxy.frameScale = std::nan("");
    SettingsStore::normalize(odd);
    EXPECT_EQ(odd, AppSettings());
}

TEST(SettingsKeys, SetsWhatAPersonTypesOrSaysWhatIsAllowed) {
    struct Case {
        const char* key;
        std::vector<std::string> given;
        std::vector<std::string> wanted;
        const char* refusal; // null: it is taken
    };
    const std::string invalid = "/\xFF";
    for (const Case& c : std::vector<Case>{
             {"verify", {"OFF"}, {"false"}, nullptr},
             {"verify", {"maybe"}, {}, "verify must be one of true, false (got “maybe”)."},
             {"verify", {"true", "false"}, {}, "verify takes one value (got 2)."},
             {"verify", {""}, {}, "verify must be one of true, false (got “”)."},
             {"proxy.height", {"720"}, {"720"}, nullptr},
             {"proxy.height", {"721"}, {}, "proxy.height must be one of 540, 720, 1080, 2160 (got “721”)."},
             {"proxy.bitrateMbps", {"400"}, {"400"}, nullptr},
             {"proxy.bitrateMbps", {"401"}, {}, "proxy.bitrateMbps must be a whole number from 1 to 400 (got “401”)."},
             {"proxy.bitrateMbps", {"1e2"}, {}, "proxy.bitrateMbps must be a whole number from 1 to 400 (got “1e2”)."},
             {"proxy.frameScale", {"0.85"}, {"0.85"}, nullptr},
             {"proxy.frameScale", {"nan"}, {}, "proxy.frameScale must be a number from 0.1 to 1 (got “nan”)."},
             {"proxy.codec", {"prores422"}, {"prores422"}, nullptr},
             {"proxy.lutMode", {"off"}, {"off"}, nullptr},
             {"proxy.lutMode", {"builtin"}, {"builtin"}, nullptr},
             {"proxy.lutMode", {""}, {}, nullptr},
             {"proxy.lutBuiltin", {"known"}, {"known"}, nullptr},
             {"proxy.lutBuiltin",
              {"gone"},
              {},
              "proxy.lutBuiltin: there is no built-in LUT “gone”. There are: known, other."},
             {"tools.ffmpeg", {"bin/ffmpeg"}, {}, "tools.ffmpeg must be a path that begins with / (got “bin/ffmpeg”)."},
             {"tools.ffmpeg", {invalid}, {}, "tools.ffmpeg must be a path that begins with / (got “/\\xFF”)."},
             {"destRoots", {"/media/a", "/media/b c"}, {"/media/a", "/media/b c"}, nullptr},
             {"destRoots", {""}, {}, nullptr},
             {"destRoots", {"/a", "b"}, {}, "destRoots must be any number of paths that begin with / (got “b”)."},
             {"portNames", {"usb=1-2=left", "x=y"}, {"usb=1-2=left", "x=y"}, nullptr},
             {"portNames", {"left"}, {}, "portNames must be any number of key=name (got “left”)."},
             {"hash", {"both"}, {"both"}, nullptr},
             {"Proxy.Height", {"720"}, {}, "There is no setting “Proxy.Height”. Did you mean “proxy.height”?"},
             {"proxy", {"x"}, {}, "There is no setting “proxy”."}}) {
        AppSettings settings = SettingsStore::decode(fullText, luts);
        const AppSettings before = settings;
        try {
            SettingsKeys::set(settings, c.key, c.given, luts);
            EXPECT_EQ(c.refusal, nullptr) << c.key;
            EXPECT_EQ(SettingsKeys::show(settings, c.key).values, c.wanted);
            const AppSettings again = SettingsStore::decode(SettingsStore::encode(settings), luts);
            EXPECT_EQ(SettingsKeys::show(again, c.key).values, c.wanted);
        } catch (const SettingsError& error) {
            EXPECT_STREQ(error.what(), c.refusal);
            EXPECT_EQ(settings, before);
        }
    }
}

TEST(SettingsKeys, RefusesALutModeWithoutItsLut) {
    for (const auto& [mode, refusal] : {std::pair{"builtin", "proxy.lutMode: set proxy.lutBuiltin first."},
                                        {"custom", "proxy.lutMode: set proxy.lutPath first."}}) {
        AppSettings settings;
        EXPECT_THAT([&] { SettingsKeys::set(settings, "proxy.lutMode", {mode}); },
                    ::testing::ThrowsMessage<SettingsError>(refusal));
        EXPECT_EQ(settings, AppSettings());
    }
    EXPECT_EQ(SettingsKeys::show({}, "proxy.lutFallback", luts).allowed, "known, other, or empty");
}

TEST(SettingsKeys, SettingAValueMakesItsKeyReadableAgain) {
    AppSettings settings = SettingsStore::decode(R"({"hash":"sha9","proxy":7,"tools":{"ffmpeg":[]}})");
    EXPECT_EQ(settings.unreadable, (std::set<std::string>{"hash", "proxy", "tools.ffmpeg"}));
    SettingsKeys::set(settings, "hash", {"both"});
    SettingsKeys::set(settings, "proxy.height", {"540"});
    SettingsKeys::reset(settings, "tools.ffmpeg");
    const json now = encoded(settings);
    EXPECT_EQ(now["hash"], "both");
    EXPECT_EQ(now["proxy"]["height"], 540);
    EXPECT_EQ(now["tools"], json::object());
    EXPECT_TRUE(settings.unreadable.empty());
}

TEST(SettingsStore, TakesNothingFromADocumentThatIsNone) {
    for (const char* none : {"", "[]", "null", "7", "{\"a\":", "\xFF"}) {
        bool damaged = false;
        EXPECT_EQ(SettingsStore::decode(none, {}, &damaged), AppSettings());
        EXPECT_TRUE(damaged) << none;
    }
    EXPECT_EQ(SettingsStore::decode(std::string(100'000, '['), {}), AppSettings());
}

TEST(SettingsStore, LoadsTheDefaultsWithoutAFileAndReplacesTheFileWhole) {
    TempFolder temp;
    const std::string folder = temp / "new/Velmora";
    EXPECT_EQ(SettingsStore::load(folder), AppSettings());
    EXPECT_FALSE(IO::exists(folder)) << "reading creates nothing";
    SettingsStore::update(folder, [](AppSettings& s) { s.verify = false; });
    EXPECT_FALSE(SettingsStore::load(folder).verify);
    EXPECT_THROW(SettingsStore::update(folder,
                                       [](AppSettings& s) {
                                           s.verify = true;
                                           throw SettingsError("no");
                                       }),
                 SettingsError);
    EXPECT_FALSE(SettingsStore::load(folder).verify);
    std::vector<std::string> names;
    for (const IOEntry& entry : IO::list(folder))
        names.push_back(entry.name);
    EXPECT_THAT(names, ::testing::UnorderedElementsAre("settings.json", "locks")) << "no temporary file stays";
}

TEST(SettingsStore, SetsADamagedFileAsideInsteadOfOverwritingIt) {
    TempFolder temp;
    const std::string torn = R"({"verify":fal)";
    IO::writeFileDurably(temp / "settings.json", torn);
    EXPECT_EQ(SettingsStore::load(temp.path()), AppSettings());
    std::string logged;
    SettingsStore::update(
        temp.path(), [](AppSettings& s) { s.verify = false; }, {}, [&](std::string_view line) { logged = line; });
    EXPECT_FALSE(SettingsStore::load(temp.path()).verify);
    const std::string start = "settings: damaged settings.json set aside as ";
    ASSERT_TRUE(logged.starts_with(start + temp.path() + "/settings.json.corrupt-")) << logged;
    EXPECT_EQ(IO::readFile(logged.substr(start.size()), 1000), torn);
}

TEST(SettingsStore, ChangesAtOnceAllSurvive) {
    TempFolder temp;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&temp, t] {
            for (int i = 0; i < 5; ++i)
                SettingsStore::update(temp.path(), [&](AppSettings& s) {
                    s.ignoredVolumes.push_back("/" + std::to_string(t) + "." + std::to_string(i));
                });
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(SettingsStore::load(temp.path()).ignoredVolumes.size(), 20u);
}

} // namespace
} // namespace velmora
