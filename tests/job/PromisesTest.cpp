#include "job/Promises.h"

namespace velmora {
namespace {

using testing::HasSubstr;

// A run of which everything is known and good, over an earlier backup.
Promises::Evidence good() {
    Promises::Evidence evidence;
    evidence.ran = evidence.readBack = evidence.cardSeen = evidence.onOtherVolume = true;
    evidence.whole.emplace();
    return evidence;
}

std::string said(const Promises::Verdict& verdict) {
    return std::string(verdict.safeToEject ? "eject " : "") + (verdict.safeToFormat ? "format " : "") +
           (verdict.verified ? "verified" : "");
}

// Each witness alone takes away what it must, and says so where nobody else does.
TEST(Promises, EveryoneWhoKnowsBetterDenies) {
    EXPECT_EQ(said(Promises::judge({})), "") << "nothing known, nothing promised";
    EXPECT_EQ(said(Promises::judge(good())), "eject format verified");
    struct Case {
        std::string what;
        std::function<void(Promises::Evidence&)> know;
        std::string remains;
        std::string reason; // empty: the report or the status says it already
    };
    for (const Case& c : std::vector<Case>{
             {"broke off", [](auto& e) { e.ran = false; }, "", ""},
             {"swapped", [](auto& e) { e.cardSwapped = true; }, "verified", ""},
             {"not read back", [](auto& e) { e.readBack = false; }, "eject ", ""},
             {"still being read", [](auto& e) { e.pending = true, e.whole->state.unverified = 9; }, "eject ", ""},
             {"failed files", [](auto& e) { e.failedFiles = 1; }, "", ""},
             {"record missing", [](auto& e) { e.problems = {"no report on B"}; }, "", "no report on B"},
             {"card not seen again", [](auto& e) { e.cardSeen = false; }, "eject verified", ""},
             {"card unreadable", [](auto& e) { e.cardError = "EIO"; }, "verified", "(EIO)"},
             {"files came", [](auto& e) { e.whole.reset(), e.filesAdded = 2; }, "verified", "has 2 files that"},
             {"files changed", [](auto& e) { e.whole.reset(), e.changed = {"C1.MOV", "C2.MOV"}; }, "verified",
              "C1.MOV and 1 more changed on the card"},
             {"a file changed", [](auto& e) { e.whole->changed = {"C1.MOV"}; }, "verified", "C1.MOV changed on the"},
             {"records unreadable", [](auto& e) { e.whole->error = "bad"; }, "", "(bad)"},
             {"a copy failed", [](auto& e) { e.whole->state.failed = 1; }, "", "still does not match"},
             {"a copy unproved", [](auto& e) { e.whole->state.unverified = 1; }, "eject ", "is not verified"},
             {"card holds more", [](auto& e) { e.whole->notInBackup = 1; }, "verified", "has 1 file that"},
             {"lost", [](auto& e) { e.whole->lost = {"C1.MOV"}; }, "", "C1.MOV"},
             {"a failure of old", [](auto& e) { e.whole->failedFiles = 1; }, "", "still does not match"},
             {"a disk is away", [](auto& e) { e.whole->elsewhere = {"/mnt/B lags"}; }, "eject ", "/mnt/B lags"},
             {"perhaps a twin", [](auto& e) { e.notCompared = 3, e.compareCommand = "velmora append"; }, "verified",
              "3 files of the card were neither copied nor compared"},
             {"verify failed", [](auto& e) { e.failedVerifications = {"/mnt/A did not pass"}; }, "", "did not pass"},
             {"the history lost something", [](auto& e) { e.forgotten = "set aside"; }, "eject verified", "set aside"},
             {"only on the card", [](auto& e) { e.onOtherVolume = false; }, "", "on the card's own volume"},
         }) {
        Promises::Evidence evidence = good();
        c.know(evidence);
        const Promises::Verdict verdict = Promises::judge(evidence);
        EXPECT_EQ(said(verdict), c.remains) << c.what;
        if (c.reason.empty()) {
            EXPECT_TRUE(verdict.reasons.empty()) << c.what;
        } else {
            ASSERT_EQ(verdict.reasons.size(), 1U) << c.what;
            EXPECT_THAT(verdict.reasons[0], HasSubstr(c.reason)) << c.what;
        }
    }
}

} // namespace
} // namespace velmora
