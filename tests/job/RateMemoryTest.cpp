#include "job/RateMemory.h"

#include "records/OffloadReport.h"

namespace velmora {
namespace {

// 1 GB in 10 s, read back in 5 s, with 100 s of footage.
OffloadReport report() {
    OffloadReport result;
    result.totalBytes = 1'000'000'000;
    result.started = {100, 0};
    result.copyFinished = {110, 0};
    result.finished = {115, 0};
    result.verified = true;
    result.destinations.resize(1);
    result.destinations[0].verifyMethod = "read-back";
    for (const double seconds : {60.0, 40.0}) {
        ClipEntry clip;
        clip.info.emplace().duration = seconds;
        result.clips.push_back(clip);
    }
    result.clips.push_back(result.clips.back());
    result.clips.back().clip.isCameraProxy = true;
    return result;
}

ProgressSnapshot moved(std::int64_t megabytes) {
    ProgressSnapshot snapshot;
    snapshot.readBytes = megabytes * 1'000'000;
    snapshot.writtenBytes = {0, 1};
    snapshot.verifiedBytes = {0, megabytes * 1'000'000}; // the first disk took nothing
    return snapshot;
}

TEST(RateMemory, LearnsFromJobsThatSaySomething) {
    RateMemory memory;
    memory.learn(report(), moved(0), false, {}, {}, false, true); // finished what was there already
    memory.learn(report(), moved(60), false, {}, {}, false, true);
    EXPECT_EQ(memory, RateMemory{}) << "too little was read to tell";
    ProgressSnapshot compared = moved(500);
    compared.writtenBytes = {0, 0};
    compared.verifiedBytes.clear();
    memory.learn(report(), compared, false, {}, {}, false, true);
    EXPECT_EQ(memory, RateMemory{}) << "a card that is only compared waits for no disk";
    RateMemory half;
    half.learn(report(), moved(500), false, {}, {}, false, true);
    EXPECT_EQ(half.copyRate, 5e7) << "what was read counts, not what the report covers";
    EXPECT_EQ(half.verifyRate, 1e8);
    OffloadReport failed = report();
    failed.files.push_back({});
    failed.files.back().sourceError = "read: Input/output error";
    OffloadReport repair = report();
    repair.kind = "repair";
    memory.learn(failed, moved(1000), true, std::nullopt, 50.0, false, true);
    memory.learn(repair, moved(1000), true, std::nullopt, 50.0, false, true);
    EXPECT_EQ(memory, RateMemory{});

    OffloadReport ridden = report();
    ridden.destinations[0].verifyMethod = "verify-in-proxy";
    memory.learn(ridden, moved(1000), true, ProxyCodec::proresLT, 300.0, true, true); // cancelled during the render
    EXPECT_EQ(memory.copyRate, 1e8);
    EXPECT_EQ(memory.verifyRate, std::nullopt);
    EXPECT_TRUE(memory.post.empty());

    memory.learn(report(), moved(1000), true, std::nullopt, 50.0, false, true);
    memory.learn(report(), moved(1000), true, ProxyCodec::proresLT, 300.0, false, true);
    memory.learn(report(), moved(1000), true, ProxyCodec::hevc, std::nullopt, false, true);
    EXPECT_EQ(memory.verifyRate, 2e8);
    EXPECT_EQ(memory.post, (std::map<std::string, double>{{"analysis", 0.5}, {"proresLT", 3.0}}));
}

TEST(RateMemory, EstimatesOnlyWhatItKnows) {
    RateMemory memory;
    const RateMemory::Planned plain{
        .bytes = 1e9, .footageSeconds = 10, .readBack = true, .analyze = false, .proxy = {}};
    EXPECT_EQ(memory.estimate(plain), std::nullopt);
    memory.copyRate = 1e8;
    EXPECT_EQ(memory.estimate(plain), std::nullopt);
    memory.verifyRate = 2e8;
    EXPECT_EQ(memory.estimate(plain), 15);
    RateMemory::Planned render = plain;
    render.readBack = false;
    render.proxy = ProxyCodec::h264;
    EXPECT_EQ(memory.estimate(render), std::nullopt);
    memory.post["h264"] = 2;
    EXPECT_EQ(memory.estimate(render), 30);
    EXPECT_EQ(RateMemory::startText(4000, true), " ~1:06:40 incl. proxies");
    EXPECT_EQ(RateMemory::startText(90, false), " ~1:30");
}

TEST(RateMemory, KeepsWhatItKnowsAndReadsTolerantly) {
    const test::TempFolder folder;
    const std::string path = folder / "support/rates.json";
    EXPECT_EQ(RateMemory::load(path), RateMemory{});
    RateMemory memory;
    memory.copyRate = 1.5e8;
    memory.post["hevc"] = 1.25;
    std::string logged;
    memory.save(path, [&](std::string_view text) { logged = text; });
    EXPECT_EQ(logged, "");
    EXPECT_EQ(RateMemory::load(path), memory);
    const std::string blanks(70'000, ' ');
    const std::vector<std::pair<std::string, RateMemory>> texts{
        {"", {}},
        {"[1]", {}},
        {"{\"copyRate\":", {}},
        {R"({"copyRate":1})" + blanks, {}}, // too long to be ours
        {R"({"copyRate":"fast","verifyRate":2e8,"post":{"h264":-1,"hevc":0,"x":"y","analysis":0.5},"newer":[]})",
         {std::nullopt, 2e8, {{"analysis", 0.5}}}},
        {R"({"copyRate":-5,"post":7})", {}},
    };
    for (const auto& [text, expected] : texts) {
        test::FileTree::write(path, text);
        EXPECT_EQ(RateMemory::load(path), expected) << text.substr(0, 80);
    }
    memory.save("/proc/no/such", [&](std::string_view text) { logged = text; });
    EXPECT_EQ(logged.substr(0, 16), "rates not saved:");
}

} // namespace
} // namespace velmora
