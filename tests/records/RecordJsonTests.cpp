#include "base/JsonFields.h"
#include "records/CardKey.h"
#include "records/HistoryEntry.h"
#include "records/JobConfig.h"
#include "records/ManifestRecord.h"
#include "records/OffloadReport.h"

#include <nlohmann/json.hpp>

namespace velmora {
namespace {

using nlohmann::json;

// A whole document of a record, and which of its keys must stand. Every other test of a record's JSON follows from
// these: the document reads and writes back as it is, a key less is a default or an error, a wrong value is an error,
// a key more is passed over.
struct Document {
    const char* what;
    const char* text;
    std::set<std::string> required;
    std::set<std::string> tolerant; // keys whose wrong value is passed over
    json (*again)(const json&);     // decoded and encoded
};

template <class T>
json again(const json& j) {
    return j.get<T>();
}

json againReport(const json& j) { return Json::parse(OffloadReport::fromJson(j.dump()).jsonData()); }
json againManifest(const json& j) {
    const auto record = ManifestRecord::parse(j.dump());
    return record ? Json::parse(record->line()) : throw FormatError("no record");
}

constexpr const char* proxyText =
    R"({"audio":false,"bitrateMbps":25,"burnFilename":false,"burnTimecode":false,"codec":"prores422HQ",
        "copyToAllDestinations":false,"enabled":true,"extraFolder":"/x","frameAspect":2.39,"frameScale":0.9,"height":2160,
        "lutBuiltin":"arri-logc4-awg4","lutFallback":"f","lutMode":"auto","lutPath":"/l.cube","skipCameraProxies":false,
        "skipLighterSources":false})";
constexpr const char* toolsText = R"({"artCmd":"/a","brawDecoder":"/b","ffmpeg":"/f","ffprobe":"/p","redline":"/r"})";
constexpr const char* clipText =
    R"({"bytes":9000000000,"format":"r3d","isCameraProxy":true,"name":"A001_C002","path":"A/A001_C002_001.R3D",
        "segments":["A/A001_C002_001.R3D","A/A001_C002_002.R3D"]})";
constexpr const char* infoText =
    R"({"audioChannels":4,"camera":"ARRI ALEXA 35","captureFrameRate":"60","codec":"prores HQ","colorRange":"tv",
        "colorScienceGen":5,"duration":12.5,"frameRate":"24000/1001","frames":300,"gamma":"g","gamut":"w","height":2160,
        "logEncoding":"LogC4","recorded":"2026-03-14T08:30:05Z","reel":"A001","squeeze":1.8,"timecode":"01:00:00:00",
        "width":3840})";
constexpr const char* contentText =
    R"({"frame":12,"framesDecoded":290,"framesExpected":300,"kind":"decode","message":"m","state":"warn",
        "timecode":"01:00:00:12"})";
constexpr const char* lutText = R"({"id":"sony-slog3-sgamut3","name":"n","reason":"r","source":"builtin"})";

std::string entryText() {
    return std::string(R"({"clip":)") + clipText + R"(,"content":)" + contentText + R"(,"info":)" + infoText +
           R"(,"lut":)" + lutText +
           R"(,"probeError":"e","proxyNote":"n","proxyPath":"_PROXY/a.mov","proxySeconds":1.5,"proxyStatus":"done"})";
}

std::string jobText() {
    return std::string(R"({"allowSameDevice":true,"analyzeClips":false,"appendInto":["/d/2026-01-01/A"],"buffers":8,
        "cardName":"A001","chunkMB":64,"date":"2026-01-01","dayReport":false,"destRoots":["/d","/e"],
        "historyFolder":"/h","primaryDestination":2,"project":"P","proxy":)") +
           proxyText + R"(,"recordHistory":false,"source":"/card","tools":)" + toolsText +
           R"(,"verify":false,"verifyInProxy":false,"verifyPrimary":"fixed"})";
}

std::string reportText() {
    return std::string(R"({"cardName":"A001","clips":[)") + entryText() +
           R"(],"copyFinished":"2026-03-14T08:30:05Z","copyPausedSeconds":1.5,"date":"2026-03-14","destinations":[
        {"cardPath":"/d/2026-03-14/A001","filesFailed":1,"filesOK":1,"filesystem":"exfat","root":"/d","unbuffered":true,
         "verifyMethod":"read-back","verifyNote":"n","volumeSerial":"1234-ABCD"}],
        "files":[{"destinations":["verified"],"errors":[null],"md5":"00","modified":"1999-12-31T23:59:59Z",
         "path":"DCIM/ü.mov","rewritten":[true],"size":5,"sourceError":"e","xxh128":"11","xxh64":"22"},
         {"destinations":["failed"],"errors":["HASH MISMATCH"],"modified":"1999-12-31T23:59:59Z","path":"b","size":0}],
        "finished":"2026-03-14T08:40:05Z","generation":2,"hashAlgorithm":"xxh64","hashAlgorithms":["xxh64","md5"],
        "kind":"repair","project":"P","proxy":)" +
           proxyText + R"(,"proxyEncoder":"libx264","safeToFormatSeconds":61.5,
        "setAside":[{"destination":1,"movedTo":"c","path":"b"}],"skipped":[".DS_Store"],"source":"/card",
        "sourceFilesystem":"exfat","started":"2026-03-14T08:20:05Z","tool":"Velmora","totalBytes":5,"totalFiles":2,
        "verified":true,"verifyIncomplete":false,"verifyNotes":["n"],"verifyPausedSeconds":2.5,"verifyPending":false,
        "version":"0.7.0"})";
}

std::vector<Document> documents() {
    static const std::string entry = entryText(), job = jobText(), report = reportText();
    return {
        {"ExternalTools", toolsText, {}, {}, again<ExternalTools>},
        {"ProxySettings", proxyText, {}, {}, again<ProxySettings>},
        {"JobConfig",
         job.c_str(),
         {"source", "destRoots", "verify", "chunkMB", "buffers", "allowSameDevice", "analyzeClips", "proxy", "tools",
          "recordHistory", "verifyInProxy", "verifyPrimary", "dayReport"},
         {},
         again<JobConfig>},
        {"Clip", clipText, {"name", "path"}, {}, again<Clip>},
        {"ClipInfo", infoText, {}, {"*"}, again<ClipInfo>},
        {"ClipContent", contentText, {"state"}, {}, again<ClipContent>},
        {"LutUse", lutText, {}, {}, again<LutUse>},
        {"ClipEntry", entry.c_str(), {"clip"}, {"info"}, again<ClipEntry>},
        {"OffloadReport",
         report.c_str(),
         {"cardName", "date", "source", "started", "totalFiles", "totalBytes"},
         {"proxy"},
         againReport},
        {"FileEntry",
         R"({"destinations":["verified","failed"],"errors":[null,"e"],"md5":"00","modified":"2026-03-14T08:30:05Z",
             "path":"a","rewritten":[true,false],"size":1,"sourceError":"e","xxh128":"1","xxh64":"2"})",
         {"path", "size", "modified"},
         {},
         again<OffloadReport::FileEntry>},
        {"ManifestRecord",
         R"({"blockSize":16777216,"blocks":["00000000000000ff"],"first":64,"gen":3,"kind":"part","md5":"00",
             "modified":"2026-03-14T08:30:05Z","path":"a/b","size":17,"v":1,"xxh128":"1","xxh64":"2"})",
         {},
         {},
         againManifest},
        {"CardKey", R"({"capacity":64000000000,"fsSerial":"1234ABCD"})", {"capacity", "fsSerial"}, {}, again<CardKey>},
        {"HistoryEntry",
         R"({"bytes":5,"card":{"capacity":64,"filesystem":"exfat","fsSerial":"S","identity":"I","label":"L"},
             "cardName":"A","date":"2026-01-01","destinations":[{"cardPath":"/d/x/A","root":"/d"}],"failedFiles":1,
             "fileList":"history/x.files.gz","files":2,"fingerprint":"f","finished":"2026-03-14T08:30:05Z",
             "generations":[{"bytes":5,"files":2,"finished":"2026-03-14T08:30:05Z","kind":"copy","seq":1,
             "verified":true}],"hashAlgorithms":["xxh64","md5"],"id":"x","project":"P","reels":["A001"],"safeToEject":true,"safeToFormat":false,"shape":"s",
             "source":"/c","success":true,"unfinished":true,"verifications":[{"cardPath":"/d/x/A",
             "clean":"2026-03-14T08:30:05Z","failed":"2026-03-14T09:30:05Z","found":"1","volumeSerial":"S"}],
             "verified":true})",
         {"id", "source", "cardName", "date", "finished", "success", "verified", "files", "bytes", "fingerprint",
          "shape"},
         {},
         again<HistoryEntry>},
    };
}

// A value of another type, for each type of value.
std::vector<json> wrongFor(const json& value) {
    std::vector<json> wrong{json::object({{"x", 1}})};
    if (value.is_object())
        wrong = {json("text"), json(1)};
    if (!value.is_string())
        wrong.emplace_back("text");
    if (!value.is_number())
        wrong.emplace_back(7);
    if (!value.is_boolean())
        wrong.emplace_back(true);
    if (!value.is_array())
        wrong.push_back(json::array({1}));
    else
        wrong.push_back(json::array({json::array()}));
    if (value.is_number())
        wrong.emplace_back(1e300);
    if (value.is_number_integer())
        wrong.emplace_back(0.5);
    return wrong;
}

TEST(RecordJson, ReadsAndWritesWholeDocumentsUnchanged) {
    for (const Document& d : documents()) {
        const json whole = json::parse(d.text);
        EXPECT_EQ(d.again(whole).dump(), whole.dump()) << d.what;
        json extra = whole;
        extra["keyOfANewerVersion"] = {{"deep", {1, 2}}};
        // The history is written again by whatever version runs next; no other record is.
        const bool keeps = std::string_view(d.what) == "HistoryEntry";
        EXPECT_EQ(d.again(extra).dump(), (keeps ? extra : whole).dump()) << d.what;
    }
}

TEST(RecordJson, MissingKeysAreDefaultsOrErrorsAsTheFormatSays) {
    for (const Document& d : documents()) {
        const json whole = json::parse(d.text);
        for (const auto& [key, value] : whole.items())
            for (const bool null : {false, true}) {
                json less = whole;
                if (null)
                    less[key] = nullptr;
                else
                    less.erase(key);
                SCOPED_TRACE(std::string(d.what) + " without " + key);
                if (d.required.contains(key)) {
                    EXPECT_THROW(d.again(less), FormatError);
                } else {
                    EXPECT_EQ(d.again(d.again(less)), d.again(less)) << "what was read must write and read the same";
                }
            }
        for (const std::string& key : d.required)
            EXPECT_TRUE(whole.contains(key)) << d.what << " " << key;
    }
}

TEST(RecordJson, WrongValuesAreNeverTakenForGood) {
    for (const Document& d : documents()) {
        const json whole = json::parse(d.text);
        for (const auto& [key, value] : whole.items())
            for (const json& wrong : wrongFor(value)) {
                if (value.is_number_float() && wrong.is_number())
                    continue; // any finite number is a number
                json changed = whole;
                changed[key] = wrong;
                SCOPED_TRACE(std::string(d.what) + "." + key + " = " + wrong.dump());
                if (d.tolerant.contains(key) || d.tolerant.contains("*")) {
                    json less = whole;
                    less.erase(key);
                    if (value.is_object()) { // of a wrong section, what can be read is kept
                        EXPECT_NO_THROW(d.again(changed));
                    } else {
                        EXPECT_EQ(d.again(changed), d.again(less));
                    }
                } else {
                    EXPECT_THROW(d.again(changed), FormatError);
                }
            }
        for (const json& other : {json::array(), json("text"), json(nullptr), json(1)})
            if (!d.tolerant.contains("*")) {
                EXPECT_THROW(d.again(other), FormatError) << d.what;
            }
    }
}

TEST(RecordJson, NumbersThatNoCardHasAreRefused) {
    for (const char* key : {"gen", "size", "blockSize", "first"})
        for (const std::int64_t number : {std::int64_t{-1}, INT64_MAX, std::int64_t{1} << 51})
            EXPECT_FALSE(ManifestRecord::parse(json{{key, number}}.dump())) << key << number;
    const std::string huge = std::to_string(std::int64_t{1} << 50);
    const std::string file = R"({"modified":"2026-03-14T08:30:05Z","path":"a","size":)" + huge + "}";
    for (const auto& [key, text] : std::map<std::string, std::string>{
             {"generation", "0"}, {"generation", "1000000000"}, {"totalBytes", "-1"}, {"files", "[" + file + "]"}}) {
        std::string files = text;
        for (int i = 0; key == "files" && i < 64; ++i)
            files.insert(1, file + ",");
        json report = json::parse(reportText());
        report[key] = json::parse(files);
        EXPECT_THROW(OffloadReport::fromJson(report.dump()), FormatError) << key << text;
    }
}

TEST(RecordJson, DefaultsAreThoseOfANewRecord) {
    EXPECT_EQ(ManifestRecord::parse("{}"), ManifestRecord());
    const OffloadReport least = OffloadReport::fromJson(
        R"({"cardName":"A","date":"d","source":"s","started":"2026-03-14T08:30:05Z","totalFiles":0,"totalBytes":0})");
    EXPECT_EQ(least.tool + least.version + least.hashAlgorithm + least.sourceFilesystem, "offload?xxh64?");
    EXPECT_EQ(least.copyFinished, least.started);
    EXPECT_EQ(least.finished, least.started);
    EXPECT_EQ(least.generationNumber(), 1);
    EXPECT_EQ(least.algorithms(), std::vector<std::string>{"xxh64"});
    const JobConfig job("/card", {"/d"});
    EXPECT_EQ(json(job).get<JobConfig>(), job);
    EXPECT_EQ(job.verifyPrimary, "fastest");
}

TEST(RecordJson, EnumerationsOfNewerVersionsFallBackWhereTheyAreInformation) {
    json entry = json::parse(entryText());
    entry["proxyStatus"] = "someday";
    entry["clip"]["format"] = "holographic";
    const auto read = entry.get<ClipEntry>();
    EXPECT_EQ(read.proxyStatus, ProxyStatus::none);
    EXPECT_EQ(read.clip.format, ClipFormat::unknown);
    json report = json::parse(reportText());
    report["proxy"]["codec"] = "av2";
    EXPECT_FALSE(OffloadReport::fromJson(report.dump()).proxy);
    EXPECT_THROW(report["proxy"].get<ProxySettings>(), FormatError); // as the input of a job it is an error
    for (const ProxyCodec codec : allProxyCodecs())
        EXPECT_EQ(proxyCodec(name(codec)), codec);
    for (const LutMode mode : allLutModes())
        EXPECT_EQ(lutMode(name(mode)), mode);
}

} // namespace
} // namespace velmora
