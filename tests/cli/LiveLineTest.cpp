#include "cli/LiveLine.h"

#include "cli/CopySummary.h"
#include "cli/StatusJson.h"
#include "cli/TerminalText.h"
#include "job/JobProgress.h"

#include <nlohmann/json.hpp>

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

JobStatus copying(std::int64_t mebibytes) {
    JobStatus status;
    status.phase = Phase::copying;
    status.copy.emplace();
    status.copy->totalBytes = 100'000'000;
    status.copy->totalFiles = 12;
    status.copy->fileIndex = 3;
    status.copy->currentFile = "DCIM/映像素材の名前がとても長い名前のファイル.mov";
    status.copy->readBytes = mebibytes * 1'000'000;
    status.copy->bytesToWrite = {100'000'000, 100'000'000};
    status.copy->handledBytes = {mebibytes * 1'000'000, mebibytes * 1'000'000};
    status.copy->writtenBytes = {mebibytes * 1'000'000, mebibytes * 500'000};
    return status;
}

struct Running {
    JobProgress progress{0};
    JobStatus status = copying(0);
    Running() {
        progress.update(status, 1);
        progress.update(status = copying(40), 2);
    }
    std::string at(std::size_t columns) const {
        return LiveLine::compose(status, progress, {"/mnt/raid", "/mnt/shuttle"}, columns);
    }
};

TEST(LiveLine, ShowsPhaseFilesSpeedsAndTimeLeft) {
    Running running;
    const auto line = running.at(200);
    for (const std::string piece : {"Copying 40 %", "4/12 files", "card ", "raid ", "shuttle ", " MB/s", " left"})
        EXPECT_NE(line.find(piece), std::string::npos) << piece << " in " << line;
    EXPECT_TRUE(line.ends_with("映像素材の名前がとても長い名前のファイル.mov")) << line;

    running.status.phase = Phase::verifying;
    running.status.verifyTotalByDest = {100'000'000, 50'000'000};
    running.status.verifyDoneByDest = {25'000'000, 45'000'000};
    running.progress.update(running.status, 3);
    EXPECT_TRUE(running.at(200).starts_with("Verifying 25 %")) << "the slower disk decides";
    EXPECT_NE(running.at(200).find("raid 25 % 0, shuttle 90 % 0 MB/s"), std::string::npos) << running.at(200);
    running.status.verifyTotalByDest = {0, 0}; // a card of empty files
    running.progress.update(running.status, 4);
    EXPECT_EQ(running.at(200).find('%'), std::string::npos);
    running.status.phase = Phase::flushing;
    EXPECT_EQ(running.at(200), "Flushing");

    JobStatus waiting;
    EXPECT_EQ(LiveLine::compose(waiting, running.progress, {}, 80), "Checking the card and the disks");
    waiting.examining = "Completing the checksum lists";
    EXPECT_EQ(LiveLine::compose(waiting, running.progress, {}, 80), "Completing the checksum lists");
    waiting.paused = true;
    waiting.pauseStep = "the check";
    EXPECT_EQ(LiveLine::compose(waiting, running.progress, {}, 80), "Pausing (finishing the check)");
    JobStatus repair;
    repair.phase = Phase::copying;
    repair.examining = "Checking the backup";
    repair.verifyDoneByDest = {10};
    repair.verifyTotalByDest = {100};
    running.progress.update(repair, 5);
    EXPECT_TRUE(
        LiveLine::compose(repair, running.progress, {"/mnt/raid"}, 80).starts_with("Checking the backup 10 %  raid 0"))
        << LiveLine::compose(repair, running.progress, {"/mnt/raid"}, 80);
}

TEST(LiveLine, NeverPassesTheWidthOfTheTerminal) {
    const Running running;
    for (std::size_t columns = 1; columns < 160; ++columns)
        EXPECT_LE(TerminalText::width(running.at(columns)), columns);
}

TEST(CopySummary, GivesEachWarningALineOfItsOwn) {
    JobStatus status;
    status.phase = Phase::done;
    status.warnings = {"one", "two"};
    std::string page;
    for (const auto& line : CopySummary::lines(status, nullptr, {}))
        page += line.text + "\n";
    EXPECT_NE(page.find("\none\ntwo\n"), std::string::npos) << page;
    EXPECT_EQ(StatusJson::result(status, nullptr, {}, 1)["warnings"], status.warnings);
}

TEST(LiveLine, TellsDisksApart) {
    using Names = std::vector<std::string>;
    const std::pair<Names, Names> cases[] = {
        {{"/mnt/raid", "/media/dit/SHUTTLE"}, {"raid", "SHUTTLE"}},
        {{"/mnt/a/backup", "/mnt/b/backup", "/mnt/c"}, {"1", "2", "3"}},
        {{"/", "/mnt/x"}, {"1", "2"}},
    };
    for (const auto& [roots, names] : cases)
        EXPECT_EQ(LiveLine::diskNames(roots), names);
}

} // namespace
} // namespace velmora
