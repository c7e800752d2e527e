#include "reports/ReportText.h"

#include "reports/SampleReport.h"

#include <ctime>

namespace velmora {
namespace {

class ReportTextTest : public testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
    OffloadReport report = sampleReport({"/mnt/x/2026-03-14/A001"});
};

TEST_F(ReportTextTest, SaysEveryLineOfACleanBackup) {
    EXPECT_EQ(ReportText::summary(report),
              "OFFLOAD REPORT — OK\n"
              "Card:        A001\n"
              "Source:      /media/dit/A001 [exfat]\n"
              "Started:     2026-03-14T08:30:05+01:00\n"
              "Finished:    2026-03-14T08:30:20+01:00\n"
              "Files:       2  (1.50 GB)\n"
              "Copy:        10.0 s  150 MB/s\n"
              "Verify:      5.0 s  300 MB/s\n"
              "Hash:        xxh64\n"
              "Destination: /mnt/x/2026-03-14/A001 [ext4]  ok 2  failed 0  verify: read-back\n");
}

TEST_F(ReportTextTest, ListsWhatFailedAndWhatIsOpen) {
    report.hashAlgorithms = {"xxh64", "md5"};
    report.copyFinished = report.started;
    report.verifyIncomplete = true;
    report.safeToFormatSeconds = 61.26;
    report.copyPausedSeconds = 2.5;
    report.verifyPausedSeconds = 1.5;
    report.verifyNotes = {"Unstable read.", "Second note."};
    report.skipped = {".DS_Store", "x/._y"};
    report.destinations.push_back({"/mnt/y", "/mnt/y/2026-03-14/A001", "exfat", 1, 1, {}, {}, {}, "8a2f"});
    report.files[0].destinations = {"verified", "failed"};
    report.files[0].errors = {std::nullopt, "write /mnt/y: No space left on device (errno 28)"};
    report.files[1].sourceError = "read: Input/output error (errno 5) (after 3 retries)";
    report.files[1].destinations = {"failed", "failed"};
    report.files[1].errors = {"source: x", std::nullopt};
    report.countFiles();
    const auto text = ReportText::summary(report);
    EXPECT_EQ(text.substr(text.find("Copy:")),
              "Copy:        0.0 s  -\n"
              "Verify:      13.5 s  111 MB/s\n"
              "Safe to format after: 61.3 s\n"
              "Verification result not written on every destination: UNFINISHED — do not format the card yet.\n"
              "Paused:      4.0 s (not in the speeds)\n"
              "Hash:        xxh64+md5\n"
              "Destination: /mnt/x/2026-03-14/A001 [ext4]  ok 1  failed 1  verify: read-back\n"
              "Destination: /mnt/y/2026-03-14/A001 [exfat 8a2f]  ok 0  failed 2\n"
              "\nVerification notes:\n  Unstable read.\n  Second note.\n"
              "\nSkipped (system files): .DS_Store, x/._y\n"
              "\nFAILED FILES (2):\n"
              "  a & b.mov\n"
              "    dest 2: write /mnt/y: No space left on device (errno 28)\n"
              "  clip/C2.mov\n"
              "    source: read: Input/output error (errno 5) (after 3 retries)\n"
              "    dest 1: source: x\n");
    EXPECT_TRUE(text.starts_with("OFFLOAD REPORT — FAILED\n"));
}

TEST_F(ReportTextTest, TellsUnverifiedFromPending) {
    report.verified = false;
    EXPECT_NE(ReportText::summary(report).find("Verify:      NOT VERIFIED\n"), std::string::npos);
    report.verifyPending = true;
    EXPECT_NE(ReportText::summary(report).find("Verify:      PENDING (with the proxies)\n"), std::string::npos);
}

TEST_F(ReportTextTest, NamesDamagedClipsWithTheirTimecode) {
    for (const auto& [name, state, timecode] : {std::tuple{"C1", "warn", std::optional<std::string>("10:00:01:05")},
                                                std::tuple{"C2", "ok", std::optional<std::string>()},
                                                std::tuple{"C3", "warn", std::optional<std::string>()}}) {
        ClipEntry entry;
        entry.clip.name = name;
        entry.content.emplace();
        entry.content->state = state;
        entry.content->timecode = timecode;
        report.clips.push_back(entry);
    }
    EXPECT_NE(ReportText::summary(report).find("Content warnings: 2 (C1 10:00:01:05, C3 )\n"), std::string::npos);
}

} // namespace
} // namespace velmora
