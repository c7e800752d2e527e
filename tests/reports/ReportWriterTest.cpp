#include "reports/ReportWriter.h"

#include "base/Errors.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "reports/HashLists.h"
#include "reports/SampleReport.h"

namespace velmora {
namespace {

const ReportWriter::Stamp stamp{{1773473420, 0}, "cart"};

class ReportWriterTest : public testing::Test {
protected:
    test::TempFolder temp;
    std::string card = temp.path() + "/A001";
    std::string reports = card + "/_REPORT/";
    OffloadReport report = sampleReport({card});

    void SetUp() override { IO::mkdirs(card); }
    std::string at(const std::string& name) const {
        return IO::exists(reports + name) ? IO::readFile(reports + name, 1 << 20) : "(none)";
    }
    std::size_t generations() const { return MHLReader::read(card).generations.size(); }
};

TEST_F(ReportWriterTest, SecondWriterOfAGenerationFailsAndLeavesTheFirst) {
    report.verifyIncomplete = true;
    ReportWriter::Pages(report).write(card, true);
    const auto first = at("offload_report.json");
    auto second = report;
    second.source = "/other";
    for (const std::string remaining : {"offload_report.json", "offload_report.txt"}) {
        if (remaining == "offload_report.txt")
            IO::unlink(reports + "offload_report.json"); // the text alone must hold the second writer off as well
        EXPECT_THAT(test::refusal<IOError>([&] { ReportWriter::Pages(second).write(card, true); }),
                    testing::EndsWith(" " + reports + remaining + ": File exists (errno 17)"));
        EXPECT_EQ(at("offload_report.txt").find("/other"), std::string::npos);
    }
    EXPECT_EQ(at("offload_report.json"), "(none)");
    EXPECT_EQ(OffloadReport::fromJson(first), report);
}

// A write that ends between the two pages leaves what the next run finishes.
TEST_F(ReportWriterTest, TheJsonIsFinalOnlyBesideAFinalText) {
    for (const bool takenBack : {false, true}) {
        auto marked = report;
        marked.verifyIncomplete = true;
        (takenBack ? ReportWriter::Pages(report) : ReportWriter::Pages(marked)).write(card, false);
        const std::string text = reports + "offload_report.txt";
        IO::unlink(text);
        IO::mkdirs(text); // in the way
        EXPECT_THROW((takenBack ? ReportWriter::Pages(marked) : ReportWriter::Pages(report)).write(card, false),
                     IOError);
        EXPECT_EQ(ReportWriter::read(reports + "offload_report.json").verifyIncomplete, true);
        IO::removeEmptyFolder(text);
    }
}

TEST_F(ReportWriterTest, LaterGenerationsStandBesideTheFirst) {
    commitReport(report, card, stamp);
    const auto first = at("offload_report.json");
    const auto later = sampleReport({card}, 2);
    commitReport(later, card, stamp);
    EXPECT_EQ(at("offload_report.json"), first);
    EXPECT_EQ(ReportWriter::read(reports + "offload_report_0002.json"), later);
    EXPECT_NE(at("offload_report_0002.txt"), "(none)");
    EXPECT_EQ(generations(), 2U);
    EXPECT_EQ(at("A001.xxh64"), "00000000000000aa  a & b.mov\n00000000000000bb  clip/C2.mov\n"
                                "00000000000000aa  more/a & b.mov\n00000000000000bb  more/clip/C2.mov\n");
    EXPECT_THROW(commitReport(later, card, stamp), IOError); // a second writer of generation 2
    EXPECT_EQ(generations(), 2U);
}

TEST_F(ReportWriterTest, ProvisionalReportsGetTheirRecordsAtTheCommit) {
    auto provisional = report;
    provisional.verified = false;
    provisional.verifyPending = true;
    ReportWriter::Pages(provisional).write(card, true);
    EXPECT_EQ(at("A001.xxh64"), "(none)");
    EXPECT_FALSE(IO::exists(card + "/ascmhl"));

    EXPECT_THROW(commitReport(provisional, card, stamp, false), OffloadError);
    EXPECT_EQ(ReportWriter::read(reports + "offload_report.json"), provisional);
    EXPECT_FALSE(IO::exists(card + "/ascmhl"));

    for (int again = 0; again < 2; ++again) { // a repeated commit finds everything there
        commitReport(report, card, stamp, false);
        EXPECT_EQ(ReportWriter::read(reports + "offload_report.json"), report);
        EXPECT_EQ(at("A001.xxh64"), HashLists::of(report));
        EXPECT_EQ(generations(), 1U);
    }
}

TEST_F(ReportWriterTest, MergesAListLineByLine) {
    IO::mkdirs(reports);
    const std::string own = HashLists::of(report);
    const std::string a = own.substr(0, own.find('\n') + 1);
    const std::string b = own.substr(a.size());
    struct Case {
        std::string before;
        std::int64_t generation;
        bool merge;
        std::string after;
    };
    const Case cases[] = {
        {"(none)", 1, false, own},
        {"(none)", 1, true, own},
        {"(none)", 2, false, own},
        {"11  old.mov\n", 1, false, own},                                 // a first generation starts its list
        {"11  old.mov\n", 1, true, "11  old.mov\n" + own},                //
        {"11  old.mov", 1, true, "11  old.mov\n" + own},                  // torn before its line feed
        {"11  old.mov\n\n\n" + b, 2, false, "11  old.mov\n\n\n" + b + a}, // only what is not there
        {a + b, 2, false, a + b},                                         //
        {"22  A & B.MOV\n", 2, true, "22  A & B.MOV\n" + own},            // another digest is another line
    };
    for (const auto& one : cases) {
        report.generation = one.generation;
        if (IO::exists(reports + "A001.xxh64"))
            IO::unlink(reports + "A001.xxh64");
        if (one.before != "(none)")
            IO::writeFileNew(reports + "A001.xxh64", one.before);
        HashLists::write(report, card, one.merge);
        EXPECT_EQ(at("A001.xxh64"), one.after) << one.before << one.merge;
        EXPECT_EQ(at("A001.md5"), "(none)");
    }
}

TEST_F(ReportWriterTest, GivesAListBackWhatTheChainKnows) {
    commitReport(report, card, stamp);
    const auto whole = at("A001.xxh64");
    const auto untouched = IO::stat(reports + "A001.xxh64").inode;
    EXPECT_FALSE(HashLists::heal(card, "A001", MHLReader::read(card)));
    EXPECT_EQ(IO::stat(reports + "A001.xxh64").inode, untouched);
    IO::unlink(reports + "A001.xxh64");
    EXPECT_TRUE(HashLists::heal(card, "A001", MHLReader::read(card)));
    EXPECT_EQ(at("A001.xxh64"), whole);
    EXPECT_EQ(at("A001.md5"), "(none)");

    // A path that the list holds in another case is there; a torn list is closed before anything is added.
    IO::writeFileDurably(reports + "A001.xxh64", "99  A & B.MOV");
    EXPECT_TRUE(HashLists::heal(card, "A001", MHLReader::read(card)));
    EXPECT_EQ(at("A001.xxh64"), "99  A & B.MOV\n00000000000000bb  clip/C2.mov\n");

    // Two files of the card whose names differ in case only are both put back, each by itself.
    OffloadReport twins = sampleReport({card}, 2);
    twins.files[0].path = "CLIP/c2.mov";
    commitReport(twins, card, stamp);
    IO::writeFileDurably(reports + "A001.xxh64", whole);
    for (const int at : {1, 2}) // before and after the first list was read
        EXPECT_THROW(HashLists::heal(card, "A001", MHLReader::read(card), [at, n = 0]() mutable { return ++n == at; }),
                     Cancelled);
    EXPECT_EQ(at("A001.xxh64"), whole);
    EXPECT_TRUE(HashLists::heal(card, "A001", MHLReader::read(card)));
    EXPECT_THAT(at("A001.xxh64"), testing::HasSubstr("  CLIP/c2.mov\n"));
    IO::unlink(reports + "A001.xxh64");
    EXPECT_TRUE(HashLists::heal(card, "A001", MHLReader::read(card)));
    EXPECT_THAT(at("A001.xxh64"),
                testing::AllOf(testing::HasSubstr("  CLIP/c2.mov\n"), testing::HasSubstr("  clip/C2")));

    // The write of a later generation heals the earlier ones' lines on its way.
    IO::unlink(reports + "A001.xxh64");
    commitReport(sampleReport({card}, 3), card, stamp);
    EXPECT_THAT(at("A001.xxh64"), testing::EndsWith(HashLists::of(sampleReport({card}, 3))));
}

TEST_F(ReportWriterTest, ListsOnlyDigestsThatAreThere) {
    report.files[0].xxh64.reset();
    report.files[0].md5 = "0cc175b9c0f1b6a831c399e269772661";
    EXPECT_EQ(HashLists::of(report), "00000000000000bb  clip/C2.mov\n");
    EXPECT_EQ(HashLists::of(report, "md5"), "0cc175b9c0f1b6a831c399e269772661  a & b.mov\n");
    report.hashAlgorithms = {"md5"};
    EXPECT_EQ(HashLists::of(report), HashLists::of(report, "md5"));
}

} // namespace
} // namespace velmora
