#include "job/EarlierBackup.h"

#include "engine/FolderLocks.h"

// What an append and a repair refuse of the earlier backup that they find.
namespace velmora {
namespace {

TEST_F(EarlierBackup, EveryDoubtIsRefusedByNameAndChangesNothing) {
    ASSERT_EQ(copy().phase, Phase::done);
    keep();
    const std::vector<std::string> both = cards;
    enum Kind { appending, repairing };
    struct Case {
        const char* what;
        std::function<void()> damage;
        PreflightCode code;
        std::vector<std::string> says;
        Kind kind = appending;
        std::vector<std::string> paths = {};
    };
    using enum PreflightCode;
    const auto none = [] {};
    const std::vector<Case> cases = {
        {"the root", none, other, {"/ is not a card folder of a backup"}, appending, {"/"}},
        {"folders of two names",
         none,
         other,
         {"(2026-03-14/CARD, 2026-03-14/OTHER) — can append only into"},
         appending,
         {cards[0], temp / "b/2026-03-14/OTHER"}},
        {"the same for a repair",
         none,
         other,
         {"can repair only into"},
         repairing,
         {cards[0], temp / "b/2026-03-14/OTHER"}},
        {"a disk that is away", [&] { shell("mv b elsewhere; mkdir b"); }, appendUnavailable, {cards[1]}},
        {"no report", [&] { fs::remove(reportOf(0)); }, appendNoReport, {cards[0], "cannot append."}},
        {"no report, repair", [&] { fs::remove(reportOf(0)); }, appendNoReport, {"cannot repair."}, repairing},
        {"a report that is none",
         [&] { test::FileTree::write(reportOf(1), "{"); },
         other,
         {"Cannot read the report of the earlier backup in " + cards[1] + " (offload_report.json: it is damaged)",
          "by Repair (velmora repair)"}},
        {"a report without a list",
         [&] { test::FileTree::write(reportOf(1), R"({"destinations":[],"files":[]})"); },
         other,
         {"Cannot read the report of the earlier backup in " + cards[1]}},
        {"no history",
         [&] { shell("rm -r */2026-03-14/CARD/ascmhl"); },
         appendNoMhl,
         {"has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append."}},
        {"a history on one disk only",
         [&] { shell("rm -r b/2026-03-14/CARD/ascmhl"); },
         appendNoMhl,
         {cards[1] + " has no ASC MHL (ascmhl/ascmhl_chain.xml) — cannot append."}},
        {"a chain on one disk only, beside a dead run",
         [&] {
             shell("rm a/2026-03-14/CARD/ascmhl/*.xml");
             shoot({{"new", 10}});
             line(2, "new");
         },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[0] + " is damaged"}},
        {"a chain that cannot be read, beside a report that waits",
         [&] {
             shell("cd b/2026-03-14/CARD/ascmhl && rm ascmhl_chain.xml && mkdir ascmhl_chain.xml");
             replaceIn(reportOf(1), "{", "{\"verifyIncomplete\": true,");
         },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[1] + " is damaged", "Cannot read ascmhl_chain.xml: "}},
        {"a generation that was changed",
         [&] { shell("sed -i s/transfer/transfes/ b/2026-03-14/CARD/ascmhl/0001*"); },
         appendMhlDamaged,
         {"The ASC MHL history in " + cards[1] + " is damaged"}},
        {"a report too many",
         [&] {
             shell(
                 "cp a/2026-03-14/CARD/_REPORT/offload_report.json a/2026-03-14/CARD/_REPORT/offload_report_0003.json");
         },
         other,
         {"the last report is generation 3, the last MHL generation 1"}},
        {"a backup in place of the card", [&] { fs::create_directory(temp / "card/ascmhl"); }, sourceIsOffload, {}},
        {"records behind a link",
         [&] { shell("mv a/2026-03-14/CARD/_REPORT elsewhere && ln -s \"$PWD/elsewhere\" a/2026-03-14/CARD/_REPORT"); },
         destinationUnreadable,
         {"/_REPORT is a link"}},
        {"a disk one generation ahead",
         [&] {
             shoot({{"DCIM/9.mov", 10}});
             EXPECT_THAT(append({cards[0]}).warning().value_or(""),
                         HasSubstr("also in " + cards[1] + ", which was not named and does not hold 1 file"));
         },
         appendDiverged,
         {"has 2 MHL generations, ", "has 1 MHL generation)", cards[1] + " is behind the others"}},
        {"files that do not match, all of them",
         [&] {
             test::FileTree::write(temp / "card/3.txt", "longer than it was", 1'700'000'000);
             const std::string touched = temp / "card/DCIM/1.mov";
             fs::last_write_time(touched, fs::last_write_time(touched) + std::chrono::seconds(5));
             test::FileTree::write(temp / "card/.new.mov.offload-part", "x");
             test::FileTree::write(temp / "card/new.mov", "x");
             test::FileTree::write(cards[1] + "/DCIM/mine.mov", "x");
             test::FileTree::write(cards[0] + "/.DCIM.offload-part", "x");
         },
         appendConflict,
         {"Append stopped — nothing was copied. 5 files do not match the backup:\n  ", "3.txt: different size or date",
          ":05; backup 2.1 MB, ", "new.mov (the temporary copy name .new.mov.offload-part is another",
          "has a file DCIM/mine.mov that no report", "has a file .DCIM.offload-part that no report knows",
          "\nMake a full copy (it goes to "}},
        {"a file that only the dead run still has",
         [&] { line(2, "DCIM/gone.mov"); },
         appendConflict,
         {"DCIM/gone.mov: no longer on the card"}},
        {"another card",
         [&] { shell("rm -r card/*; echo x > card/new"); },
         appendOtherCard,
         {"None of the files of the earlier backup is on the card"}},
        {"a copy that failed",
         [&] { replaceIn(reportOf(1), "\"verified\",\n        \"verified\"", "\"verified\",\n        \"failed\""); },
         appendFailedFile,
         {"3.txt was not copied correctly to ", "cannot append; Repair (velmora repair) copies"}},
        {"a copy of another size",
         [&] { fs::resize_file(cards[1] + "/DCIM/2.mov", 999'999); },
         appendMissingFile,
         {"has another size on ", "DCIM/2.mov (999999 bytes, in the backup 1000000 bytes)"}},
        {"a copy that is gone", [&] { fs::remove(cards[1] + "/DCIM/2.mov"); }, appendMissingFile, {"DCIM/2.mov"}},
        {"a repair that never ended",
         [&] {
             line(2, "3.txt");
             shoot({{"DCIM/9.mov", 10}});
             test::FileTree::write(cards[1] + "/.3.txt.offload-part", "x");
         },
         other,
         {"was not finished — run it again first (velmora repair)"}},
        {"nothing new while files are unfinished", [&] { line(2, "new"); }, other, {"finish it first"}, repairing},
        {"a folder beside these of which the records cannot be read",
         [&] { shell("cd b/2026-03-14/CARD/ascmhl && rm ascmhl_chain.xml && mkdir ascmhl_chain.xml"); },
         other,
         {"also in " + cards[1] + " on ", "its records cannot be read (", "ascmhl_chain.xml", "disconnect the disk"},
         repairing,
         {cards[0]}},
        {"a repair without reading back", none, other, {"cannot run without verification"}, repairing, {"unverified"}},
        {"a card that lost and changed files",
         [&] {
             shell("rm card/3.txt a/2026-03-14/CARD/3.txt b/2026-03-14/CARD/DCIM/1.mov");
             test::FileTree::flipBit(temp / "card/DCIM/1.mov", 77);
         },
         repairConflict,
         {"2 files cannot be repaired:\n  ", "3.txt: no longer on the card",
          "DCIM/1.mov: the card has different content"},
         repairing},
        {"a repair from another card",
         [&] { shell("rm -r card/* a/2026-03-14/CARD/3.txt; echo x > card/3.txt"); },
         other,
         {"The card in the reader is not the one the backup was made from"},
         repairing},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        restore();
        c.damage();
        const auto before = disks();
        const bool unverified = c.paths == std::vector<std::string>{"unverified"};
        const auto& paths = c.paths.empty() || unverified ? both : c.paths;
        const JobStatus status = c.kind == appending ? append(paths) : repair(paths, !unverified);
        EXPECT_EQ(status.phase, Phase::failed);
        EXPECT_EQ(status.errorCode, c.code) << status.error.value_or("");
        for (const std::string& text : c.says)
            EXPECT_THAT(status.error.value_or(""), HasSubstr(text));
        EXPECT_FALSE(status.safeToEject || status.safeToFormat);
        EXPECT_EQ(disks(), before);
    }
    restore();
    const FolderLocks held = FolderLocks::acquire({cards[1]});
    for (const JobStatus& status : {append(both), repair(both)})
        EXPECT_EQ(status.errorCode, PreflightCode::appendBusy);
}

} // namespace
} // namespace velmora
