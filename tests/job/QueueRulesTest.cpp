#include "job/QueueRules.h"

#include "job/CardEject.h"

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

TEST(QueueRules, HoldsAWaitingJobBehindAPausedOne) {
    EXPECT_TRUE(PausedQueue::blocked(Phase::waiting, {{Phase::copying, false}, {Phase::proxies, true}}));
    EXPECT_FALSE(PausedQueue::blocked(Phase::copying, {{Phase::proxies, true}})) << "it runs already";
    EXPECT_FALSE(PausedQueue::blocked(Phase::waiting, {{Phase::copying, false}, {Phase::cancelled, true}}));
    EXPECT_FALSE(PausedQueue::blocked(Phase::waiting, {}));
}

TEST(QueueRules, KeepsTheCardThatAnotherJobStillNeeds) {
    using P = std::pair<Phase, bool>;
    for (const auto& [phase, inUse] : {P{Phase::waiting, true}, P{Phase::copying, true}, P{Phase::reporting, true},
                                       P{Phase::analyzing, false}, P{Phase::done, false}, P{Phase::failed, false}}) {
        EXPECT_EQ(QueueRules::cardInUse("/media/A001", {{"/media/B", Phase::copying}, {"/MEDIA/a001", phase}}), inUse)
            << name(phase);
        EXPECT_EQ(QueueRules::measureBlocked({Phase::done, phase}), inUse && phase != Phase::waiting) << name(phase);
    }
    EXPECT_FALSE(QueueRules::cardInUse("/media/A001", {{"/media/A0012", Phase::copying}}));
}

TEST(QueueRules, EjectsOnlyTheCardThatWasCopied) {
    struct Case {
        std::optional<std::string> copied, current;
        bool inUse;
        std::string problem;
    };
    const std::string inUse = "another job is still copying from the card — eject it when that copy has finished";
    const std::string other = "the card in the reader is not the one that was copied";
    const std::vector<Case> cases{
        {"1A2B-3C4D", "1a2b-3c4d", false, ""},
        {"1A2B-3C4D", "1A2B-3C4D", true, inUse},
        {"1A2B-3C4D", "5555-6666", true, other},
        {std::nullopt, "5555-6666", false, other},
        {"1A2B-3C4D", std::nullopt, true, "card is not connected"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(QueueRules::ejectProblem(c.copied, c.current, c.inUse).value_or(""), c.problem);

    const std::vector<QueueRules::Mounted> volumes{
        {"/media/x", std::nullopt}, {"/media/y", " ab-cd\n"}, {"/media/z", "AB-CD"}};
    EXPECT_EQ(QueueRules::cardInDrive("ab-CD", "/media/q", volumes), "/media/y");
    EXPECT_EQ(QueueRules::cardInDrive("ab-CD", "/media/z", volumes), "/media/z");
    EXPECT_EQ(QueueRules::cardInDrive("other", "/media/z", volumes), std::nullopt);
    EXPECT_EQ(QueueRules::cardInDrive("", "/media/x", {{"/media/x", ""}}), std::nullopt);
    EXPECT_EQ(QueueRules::cardInDrive(std::nullopt, "/media/x", volumes), std::nullopt);
}

TEST(QueueRules, FindsTheFirstReportThatIsThere) {
    const test::TempFolder folder;
    EXPECT_EQ(QueueRules::firstReport({folder / "a", folder / "b"}, "A001"), std::nullopt);
    test::FileTree::write(folder / "b/_REPORT/A001_report.html", "x");
    EXPECT_EQ(QueueRules::firstReport({folder / "a", folder / "b"}, "A001"), folder / "b/_REPORT/A001_report.html");
}

TEST(CardEject, SaysWhyASourceIsNotEjected) {
    struct Case {
        CardEject::Facts facts;
        std::string problem;
    };
    const std::vector<Case> cases{
        {{.exists = false, .isLocal = false}, "card is not connected"},
        {{.exists = true, .isLocal = false}, "a network folder is not ejected"},
        {{.exists = true, .isInternal = true, .isSystem = true}, "the source is a folder, not a whole card"},
        {{.exists = true, .isVolumeRoot = true, .isInternal = true, .isSystem = true},
         "the system disk cannot be ejected"},
        {{.exists = true, .isVolumeRoot = true, .isInternal = true}, "an internal disk cannot be ejected"},
        {{.exists = true, .isVolumeRoot = true}, ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CardEject::problem(c.facts).value_or(""), c.problem);
    const test::TempFolder folder;
    EXPECT_EQ(CardEject::problem(folder / "gone"), "card is not connected");
    EXPECT_EQ(CardEject::problem(folder.path()), "the source is a folder, not a whole card");
}

} // namespace
} // namespace velmora
