#include "base/Hex.h"
#include "base/JsonFields.h"
#include "records/HashKinds.h"
#include "records/ManifestRecord.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"
#include "records/Timecode.h"

#include <cmath>
#include <limits>

namespace velmora {
namespace {

constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();

TEST(HashKinds, ReadSettingsAsWrittenAndRecordsInAnyCase) {
    EXPECT_EQ(HashKinds::fromSetting("both"), HashKinds::both);
    EXPECT_EQ(HashKinds::fromSetting("BOTH"), HashKinds::xxh64);
    EXPECT_EQ(HashKinds::fromSetting(std::nullopt), HashKinds::xxh64);
    EXPECT_EQ(HashKinds::from({{"xxh64", "MD5"}}), HashKinds::both);
    EXPECT_EQ(HashKinds::from({{"xxh128"}}), HashKinds::xxh64);
    EXPECT_THAT(HashKinds::md5.names(), ::testing::ElementsAre("xxh64", "md5"));
    FileHashes hashes;
    EXPECT_FALSE(hashes.xxh64Hex() || hashes.md5Hex());
    hashes.xxh64 = 255;
    hashes.md5 = {1, 2};
    EXPECT_EQ(hashes.xxh64Hex(), "00000000000000ff");
    EXPECT_EQ(hashes.md5Hex(), "01020000000000000000000000000000");
}

TEST(SourceFile, CountsTicksWithTheNanosecondsCutOff) {
    EXPECT_EQ((SourceFile{"a", 0, {1'700'000'000, 199}}.ticks()), 638'355'968'000'000'001);
    EXPECT_EQ((SourceFile{"a", 0, {-1, 999'999'999}}.ticks()), 621'355'967'999'999'999);
    EXPECT_EQ((SourceFile{"a", 0, {largest, 0}}.ticks()), largest); // a time that nobody believes
    SourceScan scan;
    scan.files = {{"a", 3, {}}, {"b", 4, {}}};
    EXPECT_EQ(scan.totalBytes(), 7);
}

TEST(BlockManifest, HoldsExactlyTheBlocksOfTheFile) {
    struct Case {
        std::int64_t size, blockSize, count, last;
    };
    for (const Case& c : {Case{0, 16, 0, 0}, Case{1, 16, 1, 1}, Case{16, 16, 1, 16}, Case{17, 16, 2, 1},
                          Case{largest, 4096, largest / 4096 + 1, 4095}}) {
        EXPECT_EQ(BlockManifest::countFor(c.size, c.blockSize), c.count);
        if (c.count > 0) {
            EXPECT_EQ(BlockManifest::length(c.count - 1, c.size, c.blockSize), c.last);
        }
        if (c.count < 10) {
            const auto n = static_cast<std::size_t>(c.count);
            EXPECT_TRUE(BlockManifest::make(c.size, c.blockSize, std::vector<std::uint64_t>(n)));
            EXPECT_FALSE(BlockManifest::make(c.size, c.blockSize, std::vector<std::uint64_t>(n + 1)));
        }
    }
    EXPECT_FALSE(BlockManifest::make(1, 0, {1}));
    EXPECT_FALSE(BlockManifest::make(-1, 16, {}));
}

ManifestRecord fileRecord() {
    ManifestRecord record;
    record.path = "DCIM/\"ü\".MOV";
    record.size = 33;
    record.modified = {-1, 999'999'999};
    record.xxh64 = "00000000000000AB";
    record.blockSize = 16;
    record.blocks = ManifestRecord::hex({1, 2, ~std::uint64_t{0}});
    return record;
}

TEST(ManifestRecord, IsOneSortedLine) {
    EXPECT_EQ(
        fileRecord().line(),
        R"({"blockSize":16,"blocks":["0000000000000001","0000000000000002","ffffffffffffffff"],"first":0,"gen":1,)"
        R"("kind":"file","modified":"1969-12-31T23:59:59Z","path":"DCIM/\"ü\".MOV","size":33,"v":1,)"
        R"("xxh64":"00000000000000AB"})");
    ManifestRecord feed = fileRecord();
    feed.path = "a\nb\r\u2028";
    EXPECT_EQ(feed.line().find('\n'), std::string::npos);
    EXPECT_EQ(ManifestRecord::parse(feed.line())->path, feed.path);
}

TEST(ManifestRecord, GivesBlocksOnlyWhenAllOfThemAreSound) {
    ManifestRecord record = fileRecord();
    EXPECT_EQ(record.toManifest(), (BlockManifest{33, 16, {1, 2, ~std::uint64_t{0}}}));
    EXPECT_EQ(record.xxh64Value(), 0xABu);
    record.kind = "part";
    EXPECT_FALSE(record.toManifest());
    EXPECT_TRUE(record.blockValues());
    record = fileRecord();
    record.first = 1;
    EXPECT_FALSE(record.toManifest());
    record = fileRecord();
    record.blocks[1] = BlockDigits("000000000000002");
    EXPECT_FALSE(record.blockValues() || record.toManifest());
    record = fileRecord();
    record.size = 32;
    EXPECT_FALSE(record.toManifest());
    record.xxh64 = "xyz";
    EXPECT_FALSE(record.xxh64Value());
}

TEST(ManifestRecord, TornAndForeignLinesAreNone) {
    const std::string line = fileRecord().line();
    for (std::size_t i = 0; i < line.size(); ++i)
        EXPECT_FALSE(ManifestRecord::parse(line.substr(0, i))) << i;
    EXPECT_FALSE(ManifestRecord::parse(line + line));
    EXPECT_FALSE(ManifestRecord::parse("[]"));
    EXPECT_FALSE(ManifestRecord::parse(R"({"blocks":[1]})"));
    EXPECT_FALSE(ManifestRecord::parse(R"({"modified":"yesterday"})"));
    EXPECT_EQ(ManifestRecord::parse(R"({"path":"a","new":{"x":[]}})")->path, "a");
}

TEST(Timecode, ReadsRatesAsRationalsAndNumbers) {
    EXPECT_DOUBLE_EQ(*Timecode::fps("24000/1001"), 24000.0 / 1001);
    EXPECT_EQ(Timecode::fps(" 25 "), 25.0);
    EXPECT_EQ(Timecode::fps("23.976"), 23.976);
    for (const char* text : {"", "25/0", "0/0", "/1", "25/", "25 fps", "1e999", "nan", "inf", "1e308/1e-308", "25/1/1"})
        EXPECT_FALSE(Timecode::fps(text)) << text;
}

// The names of a day one after another, as a clock with missing digits shows them.
TEST(Timecode, NamesEveryFrameOfADayOnceAndInOrder) {
    for (const int rate : {30, 60}) {
        const double fps = rate * 1000 / 1001.0;
        std::int64_t n = 0;
        for (int minute = 0; minute < 24 * 60; ++minute)
            for (int frame = minute % 10 == 0 ? 0 : rate / 15; frame < 60 * rate; ++frame, ++n) {
                char name[] = "00:00:00;00";
                const auto put = [&](int at, int value) {
                    name[at] = static_cast<char>('0' + value / 10);
                    name[at + 1] = static_cast<char>('0' + value % 10);
                };
                put(0, minute / 60), put(3, minute % 60), put(6, frame / rate), put(9, frame % rate);
                ASSERT_EQ(Timecode::fromFrames(n, fps, true, ';'), name);
                ASSERT_EQ(Timecode::toFrames(name, fps), n);
            }
        EXPECT_EQ(Timecode::add("23:59:59;" + std::to_string(rate - 1), 1, fps), "00:00:00;00");
        EXPECT_NEAR(static_cast<double>(n) / fps, 86400, 0.1);
    }
}

TEST(Timecode, CountsAsItsTextAndRateSay) {
    constexpr double ntsc = 30000 / 1001.0;
    struct Case {
        const char* start;
        std::int64_t frames;
        double fps;
        const char* end;
    };
    for (const Case& c :
         {Case{"01:00:59;29", 1, ntsc, "01:01:00;02"}, Case{"01:00:59:29", 1, ntsc, "01:01:00:00"},
          Case{"01:00:59;29", 1, 30, "01:01:00;00"}, Case{"01:09:59.24", 1, 25, "01:10:00.00"},
          Case{"00:00:59;59", 1, 60000 / 1001.0, "00:01:00;04"}, Case{"10:00:00:00", -1, 24000 / 1001.0, "09:59:59:23"},
          Case{"23:59:59:24", 26, 25, "00:00:01:00"}, Case{"00:00:00:00", largest, 1e308, "04:00:54:775807"},
          Case{"99:99:99:99", 0, 1, "04:42:18:00"}})
        EXPECT_EQ(Timecode::add(c.start, c.frames, c.fps), c.end) << c.start;
    for (const char* text :
         {"", "1:00:00:00", "01:00:00:0", "01-00:00:00", "01:00:00,00", "01:00:00:0a", "01:00:00:00\n"})
        EXPECT_FALSE(Timecode::isValid(text) || Timecode::add(text, 1, 25)) << text;
    EXPECT_EQ(Timecode::length(90'001, 25), "01:00:00:01");
    EXPECT_EQ(Timecode::length(-1, 0), "00:00:00:00");
}

TEST(FrameRate, IsWrittenAsTheRateThatIsMeant) {
    using P = std::pair<const char*, std::optional<std::string>>;
    for (const auto& [text, rate] :
         {P{"23976", "24000/1001"}, P{"25/1", "25"}, P{"30000/1001", "30000/1001"}, P{"0", {}},
          P{"59.94", "60000/1001"}, P{"119.88", "120000/1001"}, P{" 50 ", "50"}, P{"25.0/1", "25"}, P{"12.5", "12.5"},
          P{"29970/1", "30000/1001"}, P{"-25", {}}, P{"1e9", {}}, P{"24.001", "24"}, P{"fast", {}}, P{"0.001", "0.001"},
          P{"18", "18"}})
        EXPECT_EQ(ClipInfo::normalizeRate(text), rate) << text;
    EXPECT_FALSE(ClipInfo::normalizeRate({}));
}

TEST(ClipInfo, LabelsRatesSizesAndDurations) {
    ClipInfo info;
    EXPECT_FALSE(info.fpsLabel() || info.fpsSummary() || info.durationLabel());
    EXPECT_EQ(info.resolutionLabel(), "");
    info.frameRate = "24000/1001";
    EXPECT_EQ(info.fpsSummary(), "23.976");
    info.captureFrameRate = "23.976"; // within the tolerance
    EXPECT_FALSE(info.captureDiffers());
    info.captureFrameRate = "60";
    EXPECT_EQ(info.fpsSummary(), "60 fps · playback 23.976");
    info.width = 3840;
    EXPECT_EQ(info.resolutionLabel(), "");
    info.height = 2160;
    EXPECT_EQ(info.resolutionLabel(), "3840×2160");
    for (const auto& [seconds, text] :
         std::vector<std::pair<double, const char*>>{{0, "0:00:00"}, {59.5, "0:01:00"}, {36'061, "10:01:01"}}) {
        info.duration = seconds;
        EXPECT_EQ(info.durationLabel(), text);
    }
    info.duration = 1e300;
    EXPECT_FALSE(info.durationLabel());
}

TEST(ClipInfo, BelievesNoDateOfARunDownClock) {
    const Timestamp now{1'773'477'005, 5};
    using P = std::pair<std::int64_t, bool>;
    for (const auto& [seconds, plausible] : {P{0, false}, P{946'684'799, false}, P{946'684'800, true},
                                             P{now.seconds + 86400, true}, P{now.seconds + 86401, false}})
        EXPECT_EQ(ClipInfo::plausible(Timestamp{seconds, 0}, now).has_value(), plausible) << seconds;
    EXPECT_FALSE(ClipInfo::plausible(std::nullopt, now));
}

OffloadReport reportOf(bool verified, std::vector<std::vector<std::string>> statuses) {
    OffloadReport report;
    report.verified = verified;
    report.destinations.resize(2);
    for (auto& columns : statuses) {
        report.files.emplace_back();
        report.files.back().destinations = std::move(columns);
    }
    return report;
}

TEST(OffloadReport, CountsAFileAsFailedByItsStatuses) {
    struct Case {
        std::vector<std::string> statuses;
        bool failedVerified, failedCopied;
    };
    for (const Case& c : {Case{{"verified", "verified"}, false, false}, Case{{"verified", "written"}, true, false},
                          Case{{"written", "written"}, true, false}, Case{{"pending", "written"}, true, true},
                          Case{{"verified", "failed"}, true, true}, Case{{"verified", "someday"}, true, true},
                          Case{{}, false, false}}) {
        EXPECT_EQ(reportOf(true, {c.statuses}).failedFiles().size(), c.failedVerified ? 1u : 0u);
        EXPECT_EQ(reportOf(false, {c.statuses}).success(), !c.failedCopied);
    }
    OffloadReport report = reportOf(false, {{"written", "failed"}, {"verified", "pending"}, {"written"}});
    report.files[2].sourceError = "unreadable";
    EXPECT_EQ(report.failedFiles().size(), 3u);
    report.countFiles();
    EXPECT_EQ(report.destinations[0].filesOK, 3); // a source error is no fault of the disk
    EXPECT_EQ(report.destinations[0].filesFailed, 0);
    EXPECT_EQ(report.destinations[1].filesOK, 0);
    EXPECT_EQ(report.destinations[1].filesFailed, 3); // a column that does not stand is not good
}

TEST(OffloadReport, TakesPausesOutOfItsDurations) {
    OffloadReport report;
    report.started = {100, 0};
    report.copyFinished = {110, 500'000'000};
    report.finished = {115, 0};
    report.copyPausedSeconds = 4;
    EXPECT_DOUBLE_EQ(report.copySeconds(), 6.5);
    EXPECT_DOUBLE_EQ(report.verifySeconds(), 4.5);
    report.verifyPausedSeconds = 60;
    EXPECT_EQ(report.verifySeconds(), 0);
    EXPECT_EQ(report.pausedSeconds(), 64);
}

TEST(OffloadReport, SummarisesFrameRatesInOrderOfAppearance) {
    OffloadReport report;
    EXPECT_FALSE(report.frameRateSummary());
    const auto add = [&](std::optional<std::string> playback, std::optional<std::string> capture, bool proxy = false) {
        ClipEntry entry;
        entry.clip.isCameraProxy = proxy;
        entry.info = ClipInfo();
        entry.info->frameRate = std::move(playback);
        entry.info->captureFrameRate = std::move(capture);
        report.clips.push_back(entry);
    };
    report.clips.emplace_back(); // never probed
    add("25", std::nullopt, true);
    add(std::nullopt, "junk");
    EXPECT_FALSE(report.frameRateSummary());
    add("24000/1001", "60");
    add("25", "25.0005");
    add(std::nullopt, "25");
    EXPECT_EQ(report.frameRateSummary(), "60 fps capture, 23.976 playback (1 clip); 25 fps (2 clips)");
}

} // namespace
} // namespace velmora
