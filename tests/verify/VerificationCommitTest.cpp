#include "verify/Verification.h"

#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "reports/SampleReport.h"

namespace velmora {
namespace {

bool isFinal(const OffloadReport& report) {
    return report.verified && report.success() && report.verifyIncomplete != true;
}

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
    // Judges as a job does that has nothing against the card.
    Verification::Outcome commit(std::function<void(const std::string&)> beforeWrite = {}, bool create = true) {
        Verification::Order order{cards, {{1773473420, 0}, "cart"}, create, std::move(beforeWrite)};
        order.judge = [this](OffloadReport& judged, const std::vector<Verification::Failure>& failures) {
            ++judgements;
            if (!failures.empty())
                return;
            for (const auto& card : cards)
                everywhere = everywhere && MHLReader::read(card).generations.size() == 1;
            judged.safeToFormatSeconds = 1;
        };
        order.stands = [this] { return stays; };
        return Verification::commit(report, order, [this](std::string_view line) { logged.emplace_back(line); });
    }
    int judgements = 0;
    bool stays = true;
    bool everywhere = true; // each folder had its generation when the judgement was asked for
};

TEST_F(VerificationCommitTest, PromisesNothingBeforeEveryDiskHoldsTheRecords) {
    int looked = 0;
    const auto outcome = commit([&](const std::string&) {
        for (std::size_t i = 0; i < cards.size(); ++i, ++looked) {
            const bool said = IO::exists(cards[i] + "/_REPORT") && onDisk(i).safeToFormatSeconds;
            EXPECT_FALSE(judgements == 0 && said) << "a power cut now would leave a promise that does not hold";
        }
    });
    EXPECT_EQ(looked, 18);
    EXPECT_TRUE(outcome.complete() && everywhere && judgements == 1);
    EXPECT_EQ(outcome.warning(), std::nullopt);
    EXPECT_TRUE(isFinal(outcome.report));
    for (std::size_t i = 0; i < cards.size(); ++i)
        EXPECT_EQ(onDisk(i), outcome.report);
}

// The last disk fails after the others have the final report: the mark is put back on them.
// Or it takes the report and is found gone right after.
TEST_F(VerificationCommitTest, AFailureInTheSecondPassTakesThePromiseBack) {
    for (const bool afterwards : {false, true}) {
        judgements = 0;
        stays = !afterwards;
        const auto outcome = commit(
            [&](const std::string& card) {
                if (judgements > 0 && card == cards[2] && !afterwards)
                    throw IOError("open", card, EIO);
            },
            !afterwards);
        EXPECT_EQ(outcome.complete(), afterwards);
        EXPECT_FALSE(outcome.report.safeToFormatSeconds);
        for (std::size_t i = 0; i < cards.size(); ++i)
            EXPECT_TRUE(onDisk(i).verifyIncomplete == true && !onDisk(i).safeToFormatSeconds) << i;
    }
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
    EXPECT_FALSE(isFinal(outcome.report));
    for (const std::size_t i : {0U, 2U}) {
        EXPECT_EQ(onDisk(i).verifyIncomplete, true);
        EXPECT_TRUE(IO::exists(cards[i] + "/ascmhl/ascmhl_chain.xml"));
        EXPECT_TRUE(IO::exists(cards[i] + "/_REPORT/A001.xxh64"));
    }
    EXPECT_FALSE(IO::exists(cards[1] + "/_REPORT/A001.xxh64"));

    // The obstacle gone, the same call finishes the backup.
    IO::unlink(cards[1] + "/ascmhl");
    EXPECT_TRUE(isFinal(commit({}, false).report));
    EXPECT_TRUE(isFinal(onDisk(0)) && isFinal(onDisk(1)) && isFinal(onDisk(2)));
}

} // namespace
} // namespace velmora
