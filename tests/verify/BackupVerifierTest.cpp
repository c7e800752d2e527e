#include "verify/BackupVerifier.h"

#include "blocks/HashAlgo.h"
#include "blocks/ManifestFile.h"
#include "disks/VolumeSerial.h"
#include "engine/FolderLocks.h"
#include "memory/HistoryRecords.h"
#include "mhl/MHL.h"
#include "platform/IO.h"
#include "reports/ReportWriter.h"
#include "reports/SampleReport.h"
#include "verify/VerifyJob.h"
#include "verify/VerifyReport.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using Paths = std::vector<std::string>;

std::string digest(std::string_view algorithm, const std::string& content) {
    auto running = HashAlgo::make(algorithm);
    running->update(reinterpret_cast<const std::byte*>(content.data()), content.size());
    return running->value();
}

// A backup of real files with real records, one generation at a time.
class BackupVerifierTest : public testing::Test {
protected:
    struct File {
        std::string path;
        std::string content;
        std::string status = "verified";
    };
    test::TempFolder temp;
    std::string card = temp / "A001";

    OffloadReport reportOf(std::int64_t number, const std::vector<File>& files) const {
        OffloadReport report = sampleReport({card}, number);
        const OffloadReport::FileEntry model = report.files.front();
        report.files.clear();
        report.totalBytes = 0;
        for (const File& file : files) {
            OffloadReport::FileEntry entry = model;
            entry.path = file.path;
            entry.size = static_cast<std::int64_t>(file.content.size());
            entry.xxh64 = digest("xxh64", file.content);
            entry.destinations = {file.status};
            report.totalBytes += entry.size;
            report.files.push_back(std::move(entry));
        }
        report.totalFiles = static_cast<std::int64_t>(files.size());
        report.countFiles();
        return report;
    }
    void generation(std::int64_t number, const std::vector<File>& files) const {
        for (const File& file : files)
            test::FileTree::write(card + "/" + file.path, file.content);
        commitReport(reportOf(number, files), card, {{1773473420 + number, 0}, "cart"});
    }
    void sample() const {
        generation(1, {{"DCIM/1.mov", test::FileTree::bytes(1, 300'001)},
                       {"DCIM/2.mov", test::FileTree::bytes(2, 65'536)},
                       {"empty", ""}});
        generation(2, {{"DCIM/3.mov", test::FileTree::bytes(3, 10)}});
    }
    std::string mhl(int number) const {
        for (const auto& entry : fs::directory_iterator(card + "/ascmhl"))
            if (entry.path().filename().string().starts_with("000" + std::to_string(number)))
                return entry.path();
        throw std::runtime_error("no such generation");
    }
    void replaceIn(const std::string& path, const std::string& from, const std::string& to) const {
        std::string text = test::FileTree::read(path);
        const auto at = text.find(from);
        ASSERT_NE(at, std::string::npos) << path;
        test::FileTree::write(path, text.replace(at, from.size(), to));
    }
    VerifyResult verify() const { return BackupVerifier::verify(card, 65'536, {}, {}); }
};

TEST_F(BackupVerifierTest, NamesEachDamageExactly) {
    const std::string one = card + "/DCIM/1.mov";
    const struct {
        const char* what;
        std::function<void()> damage;
        Paths lines;
        bool success;
    } cases[] = {
        {"last bit", [&] { test::FileTree::flipBit(one, 300'000, 7); }, {"MISMATCH  DCIM/1.mov"}, false},
        {"truncated", [&] { fs::resize_file(one, 300'000); }, {"MISMATCH  DCIM/1.mov"}, false},
        {"grown", [&] { fs::resize_file(card + "/empty", 1); }, {"MISMATCH  empty"}, false},
        {"deleted", [&] { fs::remove(one); }, {"MISSING  DCIM/1.mov"}, false},
        {"folder deleted",
         [&] { fs::remove_all(card + "/DCIM"); },
         {"MISSING  DCIM/1.mov", "MISSING  DCIM/2.mov", "MISSING  DCIM/3.mov"},
         false},
        {"added",
         [&] {
             test::FileTree::write(card + "/new", "n");
             test::FileTree::write(card + "/_REPORT/notes", "n");
             test::FileTree::write(card + "/ascmhl/notes", "n");
             test::FileTree::write(card + "/DCIM/.DS_Store", "n");
             test::FileTree::write(card + "/_PROXY/x/p.mp4", "n");
             for (const char* deeper : {"_PROXY", "_REPORT", "ascmhl"})
                 test::FileTree::write(card + "/DCIM/" + deeper + "/x", "n");
         },
         {"EXTRA    DCIM/_PROXY/x", "EXTRA    DCIM/_REPORT/x", "EXTRA    DCIM/ascmhl/x", "EXTRA    new"},
         true},
        {"link in place of a file",
         [&] {
             fs::rename(one, temp / "outside.mov");
             fs::create_symlink(temp / "outside.mov", one);
         },
         {"ERROR    DCIM/1.mov: "},
         false},
        {"link in place of a folder",
         [&] {
             fs::rename(card + "/DCIM", temp / "outside");
             fs::create_symlink(temp / "outside", card + "/DCIM");
         },
         {"ERROR    DCIM/1.mov: ", "ERROR    DCIM/2.mov: ", "ERROR    DCIM/3.mov: "},
         false},
        {"pipe in place of a file",
         [&] {
             fs::remove(one);
             ASSERT_EQ(::mkfifo(one.c_str(), 0600), 0);
         },
         {"ERROR    DCIM/1.mov: "},
         false},
        {"edited generation",
         [&] { replaceIn(mhl(1), "<ignore>", "<ignore> "); },
         {"CHAIN    ASC MHL generation 1 does not match the chain (the MHL file was changed)."},
         true},
        {"deleted generation",
         [&] { fs::remove(mhl(2)); },
         {"EXTRA    DCIM/3.mov", "CHAIN    The ASC MHL chain lists generation 0002, but its file is missing: "},
         true},
        {"deleted chain",
         [&] { fs::remove(card + "/ascmhl/ascmhl_chain.xml"); },
         {"CHAIN    ascmhl_chain.xml is missing — generations are read by the number in the file name."},
         true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(card);
        fs::remove_all(temp / "outside");
        sample();
        c.damage();
        const VerifyResult result = verify();
        const Paths lines = VerifyReport::machineLines(result);
        ASSERT_GE(lines.size(), c.lines.size());
        for (std::size_t i = 0; i < c.lines.size(); ++i)
            EXPECT_TRUE(lines[i].starts_with(c.lines[i])) << lines[i];
        // A link or a pipe is a stranger besides: what the folder holds is not what the record names.
        for (std::size_t i = c.lines.size(); i < lines.size(); ++i)
            EXPECT_TRUE(lines[i].starts_with("EXTRA    DCIM")) << lines[i];
        EXPECT_EQ(result.success(), c.success);
        EXPECT_EQ(result.checked, result.ok + (c.what == std::string_view("last bit"))) << "only what was read";
    }
}

TEST_F(BackupVerifierTest, ReadsAFailedFileAgainstItsLastGoodRecord) {
    const std::string good = test::FileTree::bytes(7, 1000);
    generation(1, {{"a", good}, {"b", "b", "failed"}});
    generation(2, {{"a", good, "failed"}});
    VerifyResult result = verify();
    EXPECT_EQ(result.failedSuperseded, Paths{"a"});
    EXPECT_EQ(result.failedAtCopy, Paths{"b"});
    EXPECT_EQ(result.ok, 1);
    EXPECT_EQ(result.changed, Paths{});
    EXPECT_FALSE(result.success());
    test::FileTree::flipBit(card + "/a", 0);
    result = verify();
    EXPECT_EQ(result.changed, Paths{"a"}) << "an older record is a record";
}

TEST_F(BackupVerifierTest, WhatOnlyTheReportsKnowIsNotPassedOver) {
    generation(1, {{"a", "written", "written"}, {"b", "never came", "pending"}});
    fs::remove(card + "/b");
    fs::rename(card, temp / "MOVED"); // no column of the report is this folder's any more
    VerifyResult result = BackupVerifier::verify(temp / "MOVED", 65'536, {}, {});
    EXPECT_EQ(result.failedAtCopy, Paths{"b"});
    EXPECT_EQ(result.ok, 1);
    EXPECT_EQ(result.onlyInReport, 1);
    fs::copy(temp / "MOVED", temp / "LISTS", fs::copy_options::recursive); // with the lists alone it is the same
    fs::remove_all(temp / "LISTS/ascmhl");
    result = BackupVerifier::verify(temp / "LISTS", 65'536, {}, {});
    EXPECT_EQ(result.basis, "hashList");
    EXPECT_FALSE(result.success());
    test::FileTree::write(temp / "MOVED/_REPORT/offload_report.json", "{");
    result = BackupVerifier::verify(temp / "MOVED", 65'536, {}, {});
    EXPECT_EQ(result.verdict(), VerifyResult::Verdict::nothingCompared);
    EXPECT_TRUE(result.chainProblems.at(0).starts_with("Cannot read the first report: "));
}

TEST_F(BackupVerifierTest, NoRecordLeadsOutOfTheFolder) {
    test::FileTree::write(temp / "outside", "secret");
    for (const std::string path : {"../outside", "DCIM/../../outside", "/etc/passwd", "./empty"}) {
        SCOPED_TRACE(path);
        fs::remove_all(card);
        sample();
        replaceIn(mhl(1), ">DCIM/1.mov<", ">" + path + "<");
        VerifyResult result = verify();
        EXPECT_EQ(result.bytesRead, 365'547 - 300'001) << "it was opened";
        const auto lines = VerifyReport::machineLines(result);
        EXPECT_EQ(std::ranges::count_if(lines, [&](auto& l) { return l.find(path) != std::string::npos; }), 1);
        EXPECT_FALSE(result.chainProblems.empty());

        fs::remove_all(card + "/ascmhl");
        replaceIn(card + "/_REPORT/A001.xxh64", "  DCIM/1.mov\n", "  " + path + "\n");
        result = verify();
        EXPECT_EQ(result.basis, "hashList");
        ASSERT_EQ(result.chainProblems.size(), 1U);
        EXPECT_NE(result.chainProblems[0].find(path), std::string::npos);
        EXPECT_EQ(result.bytesRead, 365'547 - 300'001);
    }
}

TEST_F(BackupVerifierTest, ChecksumListsServeWhereThereIsNoHistory) {
    sample();
    fs::remove_all(card + "/ascmhl");
    test::FileTree::write(card + "/_REPORT/A001.md5", digest("md5", "") + "  empty\nno line\n\n  \n");
    ManifestRecord line; // the manifest is no sign of a run that died where report and list are final
    line.path = "DCIM/1.mov";
    ManifestFile::append(card, std::span(&line, 1));
    std::int64_t total = 0;
    VerifyResult result =
        BackupVerifier::verify(card, 65'536, [&](const VerifyProgress& now) { total = now.totalBytes; }, {});
    EXPECT_EQ(total, 365'547) << "lists tell no sizes";
    EXPECT_FALSE(result.unfinished);
    EXPECT_EQ(BackupVerifier::cardFolders(temp.path()), Paths{card}) << "a day without any history";
    EXPECT_TRUE(result.success());
    EXPECT_EQ(result.generations, 0);
    EXPECT_EQ(result.ok, 4);
    EXPECT_EQ(VerifyReport::basis(result), "checksum list, xxHash64, MD5");
    EXPECT_EQ(result.chainProblems, Paths{"The md5 checksum list is damaged: 2 lines hold no checksum."});
    EXPECT_FALSE(result.reportInsideCard);

    // Both digests must hold, and a renamed folder finds its list.
    test::FileTree::write(card + "/_REPORT/A001.md5", digest("md5", "x") + "  empty\n");
    fs::rename(card, temp / "B002");
    result = BackupVerifier::verify(temp / "B002/", 65'536, {}, {});
    EXPECT_EQ(result.changed, Paths{"empty"});
    EXPECT_EQ(result.cardPath, temp / "B002");

    fs::remove(temp / "B002/_REPORT/A001.md5");
    fs::remove(temp / "B002/_REPORT/A001.xxh64");
    result = BackupVerifier::verify(temp / "B002", 65'536, {}, {});
    EXPECT_EQ(result.ok, 4) << "the reports have digests too";
    EXPECT_TRUE(!result.unfinished && result.extra.empty() && result.chainProblems.size() == 1);
    EXPECT_EQ(VerifyReport::basis(result), "report, xxHash64");

    for (const char* record : {"offload-manifest.jsonl", "offload_report.json", "offload_report_0002.json"})
        fs::remove(temp / ("B002/_REPORT/" + std::string(record)));
    EXPECT_EQ(test::refusal<OffloadError>([&] { BackupVerifier::verify(temp / "B002", 65'536, {}, {}); }),
              temp / "B002" + " has no ASC MHL and no checksum list — nothing to compare against.");
}

TEST_F(BackupVerifierTest, AnUnfinishedGenerationIsToldAndItsFilesAreNoStrangers) {
    sample();
    OffloadReport open = reportOf(3, {{"DCIM/4.mov", "new", "written"}});
    open.verifyPending = true;
    test::FileTree::write(card + "/DCIM/4.mov", "new");
    test::FileTree::write(card + "/DCIM/5.mov", "stranger");
    ReportWriter::Pages(open).write(card, true);
    VerifyResult result = verify();
    EXPECT_EQ(result.ok, 4);
    EXPECT_TRUE(result.success());
    EXPECT_TRUE(result.unfinished);
    EXPECT_FALSE(result.copyBrokeOff);
    EXPECT_EQ(result.extra, Paths{"DCIM/5.mov"});
    open.verifyPending.reset(); // the run died between the records of two disks
    open.verifyIncomplete = true;
    ReportWriter::Pages(open).write(card, false);
    result = verify();
    EXPECT_TRUE(result.unfinished && result.copyBrokeOff);

    // The later generation that is there ends the waiting: what was never read back is held against the report.
    fs::remove_all(card);
    IO::mkdirs(card);
    open = reportOf(1, {{"DCIM/4.mov", "new", "written"}});
    commitReport(open, card, {{1773473420, 0}, "cart"});
    open.verifyPending = true;
    ReportWriter::Pages(open).write(card, false);
    generation(2, {{"DCIM/1.mov", "one"}});
    test::FileTree::write(card + "/DCIM/4.mov", "new");
    result = verify();
    EXPECT_FALSE(result.unfinished);
    EXPECT_EQ(result.onlyInReport, 1);
    EXPECT_EQ(result.ok, 2);
    ManifestRecord line;
    line.gen = 3;
    line.path = "DCIM/6.mov";
    ManifestFile::append(card, std::span(&line, 1));
    test::FileTree::write(card + "/DCIM/.6.mov.offload-part", "half");
    result = verify();
    EXPECT_TRUE(result.unfinished && result.copyBrokeOff);
    EXPECT_EQ(result.extra, Paths{});

    fs::remove_all(card);
    open = reportOf(1, {{"4.mov", "new", "written"}});
    open.verifyPending = true;
    test::FileTree::write(card + "/4.mov", "new");
    ReportWriter::Pages(open).write(card, true);
    result = verify();
    EXPECT_EQ(VerifyReport::basis(result), "the record of the unfinished generation is not written yet");
    EXPECT_TRUE(result.unfinished);
    EXPECT_EQ(result.extra, Paths{});
}

TEST_F(BackupVerifierTest, HistoriesOfFoldersInsideAreReadAndChecked) {
    const auto reference = [](const std::string& path, const std::string& c4) {
        return "<hashlistreference><path>" + path + "</path><c4>" + c4 + "</c4></hashlistreference>";
    };
    // Puts references into the last generation of a folder and brings its chain up to them.
    const auto refer = [&](const std::string& references) {
        const std::string before = MHL::c4(test::FileTree::read(mhl(1)));
        replaceIn(mhl(1), "</hashlist>", "<references>" + references + "</references></hashlist>");
        replaceIn(card + "/ascmhl/ascmhl_chain.xml", before, MHL::c4(test::FileTree::read(mhl(1))));
    };
    const std::string top = card;
    const std::string sub = top + "/Sub";
    const struct {
        const char* what;
        std::function<void()> damage;
        Paths lines;
        std::int64_t ok = 5;
        std::int64_t nested = 1;
    } cases[] = {
        {"whole", [] {}, {}},
        {"a changed file", [&] { test::FileTree::flipBit(sub + "/in/x", 3); }, {"MISMATCH  Sub/in/x"}, 4},
        {"a stranger", [&] { test::FileTree::write(sub + "/y", "y"); }, {"EXTRA    Sub/y"}},
        {"no history",
         [&] { fs::remove_all(sub + "/ascmhl"); },
         {"EXTRA    Sub/in/x", "CHAIN    The ASC MHL names a nested history, but it is missing: Sub"},
         4,
         0},
        {"no chain",
         [&] { fs::remove(sub + "/ascmhl/ascmhl_chain.xml"); },
         {"CHAIN    Sub: ascmhl_chain.xml is missing",
          "CHAIN    Sub: The history above names the generation 0001_Sub_"}},
        {"no generation",
         [&] { test::FileTree::write((*fs::directory_iterator(sub + "/ascmhl")).path(), "<x"); },
         {"EXTRA    Sub/in/x", "CHAIN    Sub: Cannot read ASC MHL generation 0001_Sub_"},
         4,
         0},
        {"a link in its place",
         [&] {
             fs::rename(sub, temp / "outside");
             fs::create_directory_symlink(temp / "outside", sub);
         },
         {"CHAIN    The ASC MHL names a nested history, but it is missing: Sub"},
         4,
         0},
        {"references that lead elsewhere",
         [&] { refer(reference("../Sub/ascmhl/1.mhl", "") + reference("1.mhl", "") + reference("ascmhl/1.mhl", "")); },
         {"CHAIN    ASC MHL generation 1 lists a path outside the card folder",
          "CHAIN    ASC MHL generation 1 refers to 1.mhl, which is no generation of a nested history.",
          "CHAIN    ASC MHL generation 1 refers to ascmhl/1.mhl, which"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fs::remove_all(top);
        fs::remove_all(temp / "outside");
        card = sub;
        generation(1, {{"in/x", "nested"}});
        const std::string named = mhl(1);
        const std::string c4 = MHL::c4(test::FileTree::read(named));
        fs::remove_all(sub + "/_REPORT");
        card = top;
        sample();
        refer(reference(named.substr(top.size() + 1), c4));
        c.damage();
        const VerifyResult result = verify();
        const Paths lines = VerifyReport::machineLines(result);
        ASSERT_GE(lines.size(), c.lines.size());
        EXPECT_EQ(lines.empty(), c.lines.empty());
        for (std::size_t i = 0; i < c.lines.size(); ++i)
            EXPECT_TRUE(lines[i].starts_with(c.lines[i])) << lines[i];
        EXPECT_EQ(result.ok, c.ok);
        EXPECT_EQ(result.nestedHistories, c.nested);
    }
}

TEST_F(BackupVerifierTest, AFolderThatVanishesIsNotAListOfMissingFiles) {
    sample();
    bool moved = false;
    const VerifyResult result = BackupVerifier::verify(card, 65'536,
                                                       [&](const VerifyProgress& now) {
                                                           if (now.fileIndex == 1 && !moved) {
                                                               fs::rename(card, temp / "gone");
                                                               moved = true;
                                                           }
                                                       },
                                                       {});
    EXPECT_TRUE(result.folderGone);
    EXPECT_EQ(result.missing, Paths{});
    EXPECT_EQ(result.checked, 1);
    fs::rename(temp / "gone", card);
    EXPECT_TRUE(BackupVerifier::verify(card, 65'536,
                                       [&](const VerifyProgress&) {
                                           if (std::exchange(moved, false)) {
                                               fs::rename(card, temp / "gone");
                                               fs::copy(temp / "gone", card, fs::copy_options::recursive);
                                           }
                                       },
                                       {})
                    .folderGone)
        << "another folder has taken its place";
    fs::remove_all(card);
    const auto summary = VerifyReport::summary(result);
    EXPECT_EQ(summary.tone, VerifyReport::Tone::error);
    EXPECT_TRUE(summary.text.ends_with("The backup folder disappeared — the disk may have been disconnected."));
    EXPECT_THROW(verify(), OffloadError);
}

TEST_F(BackupVerifierTest, TheJobEndsAsItsRunDoes) {
    ::setenv("VELMORA_SETTINGS_DIR", (temp / "settings").c_str(), 1);
    sample();
    {
        const FolderLocks busy = FolderLocks::acquire({card});
        VerifyJob job(card);
        job.run();
        EXPECT_EQ(job.currentStatus().state, VerifyJob::State::failed) << "an append works there";
        EXPECT_EQ(job.currentStatus().errorCode, PreflightCode::appendBusy);
    }
    test::FileTree::flipBit(card + "/DCIM/1.mov", 0);
    HistoryStore history(temp / "settings", 1.0);
    history.update("x", [&](const HistoryEntry*) {
        HistoryEntry entry;
        entry.destinations = {{"/", card}};
        return HistoryStore::Change{entry, std::nullopt};
    });
    const auto trace = [&] {
        return history.recall().verificationOf(card, VolumeFacts::volumeSerialText(card)).value();
    };
    VerifyJob job(card, {}, history);
    job.run();
    EXPECT_EQ(job.currentStatus().state, VerifyJob::State::done) << "a mismatch is a result";
    EXPECT_EQ(job.currentStatus().progress->bytes, 365'547);
    EXPECT_EQ(trace().found, "mismatch 1, missing 0, unreadable 0, failed during the copy 0");
    EXPECT_TRUE(trace().failed && !trace().clean);
    test::FileTree::flipBit(card + "/DCIM/1.mov", 0);
    VerifyJob(card, {}, history).run();
    EXPECT_TRUE(!trace().failed && trace().clean);
    fs::remove(mhl(2)); // every file matches, but not every record is there
    const auto before = trace();
    VerifyJob(card, {}, history).run();
    EXPECT_EQ(trace(), before);
    std::vector<std::string> log;
    const auto say = [&](std::string_view line) { log.emplace_back(line); };
    fs::remove(card + "/empty");
    test::FileTree::write(temp / "nowhere", "no folder");
    VerifyJob blind(card, say, HistoryStore(temp / "nowhere", 0.1, 5000, say));
    blind.run();
    EXPECT_EQ(blind.currentStatus().state, VerifyJob::State::done);
    EXPECT_FALSE(log.empty()) << "a history that cannot be read is told";
    VerifyJob stopped(card);
    stopped.cancel();
    stopped.run();
    EXPECT_EQ(stopped.currentStatus().state, VerifyJob::State::cancelled);
    EXPECT_FALSE(stopped.currentStatus().result);
    ::unsetenv("VELMORA_SETTINGS_DIR");

    bool enough = false;
    const VerifyResult half = BackupVerifier::verify(
        card, 65'536, [&](const VerifyProgress& now) { enough = now.bytes >= 131'072; }, [&] { return enough; });
    EXPECT_TRUE(half.cancelled);
    EXPECT_LT(half.bytesRead, 300'000) << "between two reads of one file";
    EXPECT_EQ(half.checked, 0);
    EXPECT_TRUE(BackupVerifier::verify(card, 65'536, {}, [] { return true; }).cancelled);
    EXPECT_TRUE(half.changed.empty() && half.extra.empty());
}

} // namespace
} // namespace velmora
