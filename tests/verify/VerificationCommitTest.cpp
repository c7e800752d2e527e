#include "verify/Verification.h"

#include "platform/IO.h"
#include "reports/SampleReport.h"
#include "support/TempFolder.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

class VerificationCommitTest : public testing::Test {
protected:
    test::TempFolder temp;
    std::vector<std::string> cards = {temp.path() + "/a/A001", temp.path() + "/b/A001", temp.path() + "/c/A001"};
    OffloadReport report = sampleReport(cards);
    std::vector<std::string> logged;

    void SetUp() override {
        for (const auto& card : cards)
            IO::mkdirs(card);
    }
    OffloadReport onDisk(std::size_t i) const { return ReportWriter::read(cards[i] + "/_REPORT/offload_report.json"); }
    Verification::Outcome commit(const Verification::BeforeCommit& before = {}) {
        return Verification::commit(
            report, cards, [this](std::string_view line) { logged.emplace_back(line); }, {{1773473420, 0}, "cart"},
            before);
    }
};

TEST_F(VerificationCommitTest, PromisesNothingBeforeTheLastDisk) {
    int looked = 0;
    const auto outcome = commit([&](const std::string& card) {
        for (std::size_t i = 0; cards[i] != card; ++i, ++looked)
            EXPECT_FALSE(onDisk(i).safeToFormat()) << "a power cut now would leave a promise that does not hold";
    });
    EXPECT_EQ(looked, 3);
    EXPECT_TRUE(outcome.complete());
    EXPECT_EQ(outcome.warning(), std::nullopt);
    EXPECT_TRUE(outcome.report.safeToFormat());
    for (std::size_t i = 0; i < cards.size(); ++i)
        EXPECT_EQ(onDisk(i), outcome.report);
}

TEST_F(VerificationCommitTest, AFailureOnOneDiskIsToldAndDoesNotStopTheOthers) {
    IO::writeFileNew(cards[1] + "/ascmhl", "in the way");
    const auto outcome = commit();
    ASSERT_EQ(outcome.failures.size(), 1U);
    EXPECT_EQ(outcome.failures[0].destination, 1U);
    EXPECT_EQ(outcome.warning(), "Could not write the verification result (" + outcome.failures[0].error +
                                     ") — do not format the card yet; \"Finish interrupted backup\" (Append, velmora "
                                     "append) finishes the backup.");
    EXPECT_EQ(logged.size(), 1U);
    EXPECT_FALSE(outcome.report.safeToFormat());
    for (const std::size_t i : {0U, 2U}) {
        EXPECT_EQ(onDisk(i).verifyIncomplete, true);
        EXPECT_TRUE(IO::exists(cards[i] + "/ascmhl/ascmhl_chain.xml"));
        EXPECT_TRUE(IO::exists(cards[i] + "/_REPORT/A001.xxh64"));
    }
    EXPECT_FALSE(IO::exists(cards[1] + "/_REPORT/offload_report.json"));

    // The obstacle gone, the same call finishes the backup.
    IO::unlink(cards[1] + "/ascmhl");
    EXPECT_TRUE(commit().report.safeToFormat());
    EXPECT_TRUE(onDisk(0).safeToFormat() && onDisk(1).safeToFormat() && onDisk(2).safeToFormat());
}

} // namespace
} // namespace velmora
