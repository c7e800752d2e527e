#include "clips/FFProbe.h"
#include "base/Errors.h"
#include "base/JsonFields.h"

#include <nlohmann/json.hpp>

namespace velmora {
namespace {

constexpr Timestamp now{1'800'000'000, 0};

ClipInfo parse(std::string_view text) { return FFProbe::parse(text, now); }

TEST(FFProbe, ReadsAClipWithCoverSoundAndTimecodeTrack) {
    const ClipInfo info = parse(R"({"streams":[
        {"codec_type":"video","codec_name":"mjpeg","width":600,"height":600,"disposition":{"attached_pic":1}},
        {"codec_type":"audio","channels":2,"bit_rate":"1000"},
        {"codec_type":"video","codec_name":"prores","profile":"HQ","width":3840,"height":2160,"color_range":"tv",
         "avg_frame_rate":"24000/1001","nb_frames":"+240","duration":"10.01","tags":{"Reel_Name":" \n"}},
        {"codec_type":"audio","channels":16},{"codec_type":"audio"},{"codec_type":"audio","channels":1e9},
        {"codec_type":"data","tags":{"timecode":"10:00:00:00","reel":"B003 "}}],
        "format":{"bit_rate":"5000","duration":"12","tags":{"timecode":"09:00:00:00","product_name":"Box","creation_time":
        "1970-01-01T00:00:00Z","com.apple.quicktime.make":" ARRI ","com.apple.quicktime.model":"ALEXA Mini"}}})");
    ClipInfo wanted;
    wanted.codec = "prores HQ";
    wanted.width = 3840;
    wanted.height = 2160;
    wanted.frameRate = "24000/1001";
    wanted.duration = 10.01;
    wanted.frames = 240;
    wanted.timecode = "10:00:00:00";
    wanted.audioStreams = {2, 16, 0, 0};
    wanted.audioChannels = 18;
    wanted.videoBitrate = 4000;
    wanted.reel = "B003";
    wanted.camera = "ARRI ALEXA Mini";
    wanted.colorRange = "tv";
    EXPECT_EQ(info, wanted);
}

// One field at a time; `got` is what stands in its place in the record's JSON.
TEST(FFProbe, TakesEachFieldOnlyForWhatItIs) {
    struct Case {
        const char *stream, *format, *field, *got;
    };
    for (const Case& c : std::vector<Case>{
             {R"("avg_frame_rate":"0/0","r_frame_rate":"25/1")", "", "frameRate", R"("25/1")"},
             {R"("avg_frame_rate":25,"r_frame_rate":"50/1")", "", "frameRate", R"("50/1")"},
             {R"("codec_name":"unknown","width":1920,"height":1080)", "", "codec", R"("unknown")"},
             {R"("codec_name":"unknown","width":1920)", "", "width", "null"},
             {R"("width":1920)", "", "width", "null"},
             {R"("codec_name":"h264","width":0)", "", "width", "null"},
             {R"("codec_name":"h264","width":-5)", "", "width", "null"},
             {R"("codec_name":"h264","width":9223372036854775808)", "", "width", "null"},
             {R"("codec_name":"h264","height":1080)", "", "height", "1080"},
             {R"("profile":"High")", "", "codec", R"("High")"},
             {R"("nb_frames":"N/A")", "", "frames", "null"},
             {R"("nb_frames":"9223372036854775808")", "", "frames", "null"},
             {R"("nb_frames":"12.5")", "", "frames", "null"},
             {R"("duration":"nan")", R"("duration":"2.5")", "duration", "2.5"},
             {R"("duration":"1e999")", R"("duration":"-inf")", "duration", "null"},
             {"", R"("tags":{"timecode":"01:00:00;00"})", "timecode", R"("01:00:00;00")"},
             {R"("tags":{"timecode":"01:00:00:099"})", "", "timecode", R"("01:00:00:99")"},
             {"", R"("tags":{"timecode":"01:00:00:110"})", "timecode", R"("01:00:00:110")"},
             {"", R"("tags":{"product_name":"FX9","company_name":"Sony"})", "camera", R"("FX9")"},
             {"", R"("tags":{"company_name":"Sony"})", "camera", R"("Sony")"},
             {R"("tags":{"TAPE_NAME":"T1","reel":"R1"})", R"("tags":{"REEL":"R2"})", "reel", R"("R2")"},
             {R"("tags":{"TAPE_NAME":"T1","reel":"R1"})", "", "reel", R"("T1")"},
             {R"("tags":{"creation_time":"2026-03-14T08:30:05.123456Z"})",
              R"("tags":{"creation_time":"1999-12-31T23:59:59Z"})", "recorded", R"("2026-03-14T08:30:05Z")"},
             {"", R"("tags":{"creation_time":" 2026-03-14 08:30:05 "})", "recorded", R"("2026-03-14T08:30:05Z")"},
             {"", R"("tags":{"creation_time":"2027-01-17T08:00:00Z"})", "recorded", "null"},
             {"", R"("tags":[1])", "reel", "null"},
         }) {
        const std::string text = std::string(R"({"streams":[{"codec_type":"video")") + (*c.stream ? "," : "") +
                                 c.stream + "}],\"format\":{" + c.format + "}}";
        const nlohmann::json json = parse(text);
        EXPECT_EQ(json.contains(c.field) ? json[c.field] : nlohmann::json(), nlohmann::json::parse(c.got)) << text;
    }
}

TEST(FFProbe, RefusesWhatIsNoAnswer) {
    for (const char* text : {"[]", "7", "null"})
        EXPECT_EQ(test::refusal<ToolError>([&] { parse(text); }), ToolError("ffprobe", 0, "unreadable output").what());
    EXPECT_THROW(parse("{"), FormatError);
    for (const char* text : {"{}", R"({"streams":{},"format":[]})", R"({"streams":[1,null,[]]})"})
        EXPECT_EQ(parse(text), ClipInfo{}) << text;
}

TEST(FFProbe, NamesACameraOnce) {
    const auto name = [](const char* make, const char* model) { return FFProbe::camera(make, model); };
    EXPECT_EQ(name("SONY", "SONY FX6"), "SONY FX6");
    EXPECT_EQ(name("arri", "ARRI ALEXA 35"), "ARRI ALEXA 35");
    EXPECT_EQ(name("ARRI", "ALEXA Mini"), "ARRI ALEXA Mini");
    EXPECT_EQ(name(" ", "X"), "X");
    EXPECT_EQ(name("Canon", ""), "Canon");
    EXPECT_FALSE(FFProbe::camera({}, " "));
}

} // namespace
} // namespace velmora
