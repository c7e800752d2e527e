#include "cli/LastWords.h"

#include "cli/CardWords.h"
#include "cli/ShellText.h"
#include "job/Remedy.h"
#include "records/OffloadReport.h"

#include <array>

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

const Errand copying{"velmora copy c", "/media/it's", {"/mnt/a"}, {"/mnt/a/2026-03-14/A001"}, false};
const Errand appending{"velmora append c", "/media/c", {}, {"/mnt/a/2026-03-14/A001"}, true};

JobStatus ended(Phase phase, Remedy remedy = Remedy::none, std::optional<PreflightCode> code = {}) {
    JobStatus status;
    status.phase = phase;
    status.remedy = remedy;
    status.errorCode = code;
    return status;
}

TEST(LastWords, NameTheOneCommandThatGoesOn) {
    Errand unclaimed = copying;
    unclaimed.folders.clear();
    const std::string into = " '/media/c' --into '/mnt/a/2026-03-14/A001'";
    const struct {
        JobStatus status;
        const Errand& errand;
        std::string next;
    } cases[] = {
        {ended(Phase::cancelled), unclaimed, "velmora copy c"},
        {ended(Phase::failed), copying, "velmora inspect '/media/it'\\''s'"},
        {ended(Phase::failed), appending, "velmora append c"},
        {ended(Phase::cancelled, Remedy::append), copying,
         "velmora append '/media/it'\\''s' --into '/mnt/a/2026-03-14/A001'"},
        {ended(Phase::done, Remedy::append), appending, "velmora append" + into},
        {ended(Phase::done, Remedy::compare), appending, "velmora append" + into + " --compare"},
        {ended(Phase::done, Remedy::repair), appending, "velmora repair" + into},
        {ended(Phase::done, Remedy::copyAgain), appending, "velmora copy '/media/c' --again --dest '/mnt/a'"},
        {ended(Phase::failed, {}, PreflightCode::appendFailedFile), appending, "velmora repair" + into},
        {ended(Phase::failed, {}, PreflightCode::appendDiverged), appending, "velmora inspect '/media/c'"},
        {ended(Phase::failed, {}, PreflightCode::appendUnavailable), appending, "velmora inspect '/media/c'"},
        {ended(Phase::failed, {}, PreflightCode::noSpace), copying, "velmora copy c"},
        {ended(Phase::failed, {}, PreflightCode::sharedVolume), copying, ""},
    };
    for (const auto& [status, errand, next] : cases) {
        const LastWords words = LastWords::of(status, nullptr, errand);
        EXPECT_EQ(words.next, next);
        EXPECT_FALSE(words.happened.empty() || words.safe.find("ot format") == std::string::npos) << words.safe;
    }
    // What lies on one volume needs the switch that it needed before.
    const test::TempFolder disks, card("/dev/shm");
    const std::string one = ShellText::quoted(disks.path()), two = ShellText::quoted(disks / ".");
    const std::string again = "velmora copy " + ShellText::quoted(card.path()) + " --again --dest " + one;
    EXPECT_EQ(CardWords::copyAgainCommand(card.path(), {disks.path(), disks.path(), "/mnt/gone"}),
              again + " --dest '/mnt/gone'");
    EXPECT_EQ(CardWords::copyAgainCommand(card.path(), {disks.path(), disks / "."}),
              again + " --dest " + two + " --allow-same-device");
    EXPECT_THAT(CardWords::copyAgainCommand(disks.path(), {disks / "."}), testing::EndsWith(" --allow-source-volume"));
    JobStatus good = ended(Phase::done);
    good.safeToEject = good.safeToFormat = true;
    EXPECT_EQ(LastWords::of(good, nullptr, copying).happened, "");
    const std::array<const char*, 4> typed = {"/usr/bin/velmora", "copy", "/media/a b", ""};
    EXPECT_EQ(ShellText::commandLine(typed), "velmora copy '/media/a b' ''");
}

TEST(LastWords, TheGravestNeedDecides) {
    OffloadReport report;
    report.files.resize(1);
    report.files[0].destinations = {"verified", "failed"};
    report.files[0].sourceError = "cancelled";
    Promises::Evidence evidence;
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::otherDisk);
    evidence.onOtherVolume = true;
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::append) << "it never came off the card";
    evidence.notCompared = 1;
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::compare);
    report.files[0].sourceError.reset();
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::repair);
    evidence.whole.emplace().elsewhere = {"another disk lags"};
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::inspect);
    evidence.whole->lost = {"a.mov"};
    EXPECT_EQ(remedyOf(evidence, &report), Remedy::copyAgain);
}

} // namespace
} // namespace velmora
