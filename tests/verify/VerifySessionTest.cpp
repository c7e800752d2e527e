#include "verify/VerifySession.h"

#include "base/Flag.h"
#include "blocks/BlockVerifier.h"
#include "blocks/HashStreams.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"
#include "support/FaultDisk.h"
#include "verify/VerifyFiles.h"
#include "verify/VerifyOptions.h"

namespace velmora::test {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

constexpr std::size_t block = 65536;

// A card that was copied to some folders, and what the copy knows of it.
class VerifySessionTest : public ::testing::Test {
protected:
    struct Copied {
        std::string path;
        std::size_t blocks;
    };
    // Each file ends in a block that is not full.
    void copyTo(Strings folders, const std::vector<Copied>& files) {
        inputs.cardPaths = std::move(folders);
        inputs.blockSize = block;
        for (const auto& card : inputs.cardPaths) {
            report.destinations.emplace_back();
            report.destinations.back().cardPath = card;
        }
        for (const auto& [path, blocks] : files) {
            const std::string bytes = FileTree::bytes(report.files.size() + 1, blocks * block - 100);
            content[path] = bytes;
            OffloadReport::FileEntry entry;
            entry.path = path;
            entry.size = static_cast<std::int64_t>(bytes.size());
            entry.destinations.assign(inputs.cardPaths.size(), "written");
            entry.errors.resize(inputs.cardPaths.size());
            report.files.push_back(entry);
            for (const auto& card : inputs.cardPaths)
                FileTree::write(card + "/" + path, bytes);
            auto& hashes = inputs.blocks.emplace_back();
            for (std::size_t at = 0; at < bytes.size(); at += block)
                hashes.push_back(blockHash(bytes.data() + at, std::min(block, bytes.size() - at)));
        }
        report.verifyPending = true;
    }
    VerifySession& start(VerifySession::Limits limits = {}) {
        session = std::make_unique<VerifySession>(report, inputs, gate, limits);
        return *session;
    }
    static Clip clip(const std::string& path, ClipFormat format = ClipFormat::video) {
        return {path, path, format, {path}, 0, false};
    }
    // What a player gets; `range` as "0-99", empty for all.
    static std::string fetch(const VerifySession::Lease& lease, const std::string& range = "") {
        const TempFolder to;
        shell("curl -sf " + (range.empty() ? "" : "-r " + range) + " -o '" + to / "got" + "' '" + *lease.url() + "'");
        return FileTree::read(to / "got");
    }
    // "A.mov verified" for each file on a destination, with the error behind a failure.
    Strings states(const VerifySession::Outcome& outcome, std::size_t d) const {
        Strings all;
        for (std::size_t file = 0; file < report.files.size(); ++file) {
            const DestFileResult& result = outcome.results[d][file];
            all.push_back(report.files[file].path + " " + std::string(name(result.state)) +
                          (result.error ? ": " + *result.error : ""));
        }
        return all;
    }
    Strings allOf(const std::string& state) const {
        Strings all;
        for (const auto& file : report.files)
            all.push_back(file.path + " " + state);
        return all;
    }
    static void until(const std::function<bool()>& holds) {
        while (!holds())
            std::this_thread::sleep_for(1ms);
    }

    TempFolder temp;
    PauseGate gate;
    OffloadReport report;
    std::map<std::string, std::string> content;
    VerifySession::Inputs inputs;
    std::unique_ptr<VerifySession> session;
};

class VerifySessionOnFaultyDisks : public VerifySessionTest {
protected:
    void SetUp() override { VELMORA_NEEDS(FaultDisk::unavailable()); }
};

TEST_F(VerifySessionTest, OneDestinationBecomesThePrimaryAndTheOthersSayWhyNot) {
    const std::string secondary = "another destination — verified by reading in the background";
    struct Case {
        std::vector<double> rates;
        std::optional<std::size_t> preferred;
        std::vector<std::optional<std::string>> why;
        std::optional<std::size_t> primary;
        Strings notes;
    };
    copyTo({temp / "a", temp / "b", temp / "c"}, {{"A.mov", 1}});
    for (const Case& c :
         {Case{{1, 3, 2}, {}, {}, 1, {secondary, "", secondary}},
          Case{{1, 3, 3}, {}, {{}, "network", {}}, 2, {secondary, "network", ""}},
          Case{{}, {}, {}, 0, {"", secondary, secondary}}, Case{{1, 3, 2}, 2, {}, 2, {secondary, secondary, ""}},
          Case{{1, 3, 2}, 1, {{}, "network", {}}, 2, {secondary, "network", ""}},
          Case{{1, 3, 2}, 9, {"off", "off", "off"}, {}, {"off", "off", "off"}}}) {
        inputs.rates = c.rates;
        inputs.preferred = c.preferred;
        inputs.classicWhy = c.why;
        EXPECT_EQ(start().primary(), c.primary);
        EXPECT_EQ(session->prepare(clip("A.mov"), 0) != nullptr, c.primary == 0);
        const auto outcome = session->finish(nullptr, {});
        OffloadReport told = report;
        session->record(outcome, told);
        EXPECT_TRUE(told.verified && told.success() && !told.verifyPending);
        for (std::size_t d = 0; d < 3; ++d) {
            EXPECT_EQ(told.destinations[d].verifyMethod, c.primary == d ? "verify-in-proxy" : "read-back");
            EXPECT_EQ(told.destinations[d].verifyNote.value_or(""), c.notes[d]);
        }
    }
    EXPECT_EQ(VerifyOptions::primaryIndex("first", {}, 2), 0U);
    EXPECT_EQ(VerifyOptions::primaryIndex("first", 2, 2), 1U);
    EXPECT_EQ(VerifyOptions::primaryIndex("fastest", {}, 2), std::nullopt);
    EXPECT_EQ(VerifyOptions::primaryProblem(0, 2),
              "--primary 0: destinations are numbered from 1 (the order of --dest).");
    EXPECT_EQ(VerifyOptions::primaryProblem(3, 2),
              "--primary 3: there are only 2 destinations (numbered from 1 in the order of --dest).");
    EXPECT_EQ(VerifyOptions::primaryProblem(2, 1),
              "--primary 2: there is only 1 destination (numbered from 1 in the order of --dest).");
}

TEST_F(VerifySessionTest, OnlyWhatTheCopyHasWrittenWholeIsRead) {
    copyTo({temp / "a"}, {{"ok.txt", 1},
                          {"pending.txt", 1},
                          {"odd.txt", 1},
                          {"failed.txt", 1},
                          {"cut.txt", 1},
                          {"unknown.txt", 1},
                          {"short.txt", 1},
                          {"done.txt", 1},
                          {"link.mov", 1}});
    report.files[1].destinations = {"pending"};
    report.files[2].destinations = {"strange"};
    report.files[3].destinations = {"failed"};
    report.files[3].errors = {"write: no"};
    report.files[4].sourceError = "read: no";
    report.files[5].destinations = {};
    inputs.blocks[6] = {};
    report.files[7].destinations = {"verified"};
    std::filesystem::rename(temp / "a/link.mov", temp / "elsewhere"); // the same bytes, but not in this folder
    std::filesystem::create_symlink("../elsewhere", temp / "a/link.mov");
    EXPECT_EQ(start().bytesToVerify(), std::vector<std::int64_t>{2 * (block - 100)});
    EXPECT_EQ(session->prepare(clip("link.mov"), 0), nullptr);
    const auto outcome = session->finish(nullptr, {});
    EXPECT_EQ(states(outcome, 0),
              (Strings{"ok.txt verified", "pending.txt pending", "odd.txt pending", "failed.txt failed: write: no",
                       "cut.txt pending", "unknown.txt pending", "short.txt failed: verify: no block hashes",
                       "done.txt verified",
                       "link.mov failed: verify: " + std::string(IOError("open", temp / "a/link.mov", ELOOP).what())}));
    session->record(outcome, report);
    EXPECT_EQ(report.files[4].destinations[0], "written"); // the copy's own word
    EXPECT_EQ(report.destinations[0].filesOK, 2);
}

// A connection may still wait for a block when its clip is long done.
TEST_F(VerifySessionTest, AReadThatComesLateOverturnsWhatWasVerified) {
    copyTo({temp / "a"}, {{"A.mov", 2}});
    VerifyFiles files(report, 1, inputs.blocks, block);
    const auto verifier = files.verifier(0, 0);
    std::string bytes = content["A.mov"];
    verifier->feed(0, std::as_bytes(std::span(bytes)));
    files.settle(0, 0, {FileState::verified, {}}, false, [] { return false; });
    files.judgeAgain();
    EXPECT_EQ(files.results()[0][0].state, FileState::verified);
    bytes[block] ^= 1;
    verifier->feed(0, std::as_bytes(std::span(bytes)));
    files.judgeAgain();
    EXPECT_THAT(files.results()[0][0].error.value_or(""), ::testing::StartsWith("HASH MISMATCH: block 1 dest "));
}

// A report that is written meanwhile may be all that is left of this run, and it has no notes.
TEST_F(VerifySessionTest, WhatANoteWouldTellOfIsNotKeptAsProved) {
    copyTo({temp / "a"}, {{"A.mov", 2}});
    std::string bytes = content["A.mov"];
    for (const auto& [throughCache, unstable] : {std::pair{false, false}, {true, false}, {false, true}}) {
        VerifyFiles files(report, 1, inputs.blocks, block);
        const auto verifier = files.verifier(0, 0);
        verifier->observeLength(static_cast<std::int64_t>(bytes.size()));
        bytes[0] ^= unstable ? 1 : 0;
        verifier->feed(0, std::as_bytes(std::span(bytes)));
        bytes = content["A.mov"];
        verifier->feed(0, std::as_bytes(std::span(bytes)));
        const FileState kept = throughCache || unstable ? FileState::written : FileState::verified;
        EXPECT_EQ(files.resultsSoFar()[0][0].state, throughCache ? FileState::verified : kept);
        files.settle(0, 0, {FileState::verified, {}}, throughCache, [] { return false; });
        EXPECT_EQ(files.resultsSoFar()[0][0].state, kept);
        EXPECT_EQ(files.results()[0][0].state, FileState::verified);
    }
}

// Whoever reads what: a render whole or in part, the reading ahead of a RAW decoder, the background, the last reading.
TEST_F(VerifySessionOnFaultyDisks, EachBlockIsReadFromItsDiskOnce) {
    FaultDisk first;
    FaultDisk second;
    copyTo({first.root() + "/C", second.root() + "/C"}, {{"A.mov", 20},
                                                         {"a.mov", 3},
                                                         {"half.MP4", 30},
                                                         {"never.mxf", 5},
                                                         {"raw.braw", 9},
                                                         {"other.mts", 6},
                                                         {"note.txt", 2}});
    const std::int64_t blocks = 20 + 3 + 30 + 5 + 9 + 6 + 2;
    start().startBackground();
    until([&] { return session->verifiedBytes()[1] == session->bytesToVerify()[1]; });
    // Of the first disk, what no render will read.
    until([&] { return session->verifiedBytes()[0] == 8 * static_cast<std::int64_t>(block) - 200; });
    until([&] { return session->currentFiles().empty(); });
    for (const char* path : {"A.mov", "a.mov"}) { // two files, whose names differ in case only
        const auto lease = session->prepare(clip(path), 0);
        ASSERT_TRUE(lease && lease->url());
        EXPECT_EQ(fetch(*lease), content[path]);
        EXPECT_EQ(lease->activity(), 2 * static_cast<std::int64_t>(content[path].size())); // disk and connection
    }
    const auto soFar = session->soFar();
    EXPECT_EQ(states(soFar, 0), (Strings{"A.mov verified", "a.mov verified", "half.MP4 written", "never.mxf written",
                                         "raw.braw written", "other.mts verified", "note.txt verified"}));
    EXPECT_FALSE(soFar.verified);
    {
        const auto lease = session->prepare(clip("half.MP4"), 0);
        EXPECT_EQ(fetch(*lease, "0-99"), content["half.MP4"].substr(0, 100));
        EXPECT_EQ(fetch(*lease, "-100"), content["half.MP4"].substr(content["half.MP4"].size() - 100));
    }
    EXPECT_EQ(session->prepare(clip("half.MP4"), 1), nullptr);
    EXPECT_EQ(session->prepare(clip("other.mts"), 0), nullptr);
    const auto raw = session->prepare(clip("raw.braw", ClipFormat::braw), 0);
    EXPECT_TRUE(raw && !raw->url());
    EXPECT_EQ(states(session->soFar(), 0)[4], "raw.braw verified");
    const auto outcome = session->finish(nullptr, {});
    EXPECT_TRUE(outcome.verified);
    EXPECT_EQ(outcome.notes, Strings{});
    EXPECT_EQ(states(outcome, 0), allOf("verified"));
    EXPECT_EQ(states(outcome, 1), allOf("verified"));
    EXPECT_EQ(session->verifiedBytes(), session->bytesToVerify());
    EXPECT_EQ(first.count("read"), blocks);
    EXPECT_EQ(second.count("read"), blocks);
    EXPECT_EQ(session->prepare(clip("A.mov"), 0), nullptr);
}

TEST_F(VerifySessionOnFaultyDisks, EveryFaultIsFoundAndNamedWhoeverReads) {
    struct Case {
        const char* name;
        std::function<void(FaultDisk& disk, const std::string& path)> harm;
        std::string result;
        std::string note = {};
    };
    const std::string at = "/C/F.mov";
    const auto flipBlock = [](FaultDisk& disk, const std::string& path) {
        FileTree::flipBit(disk.medium() + path, 2 * block + 7);
    };
    const Case cases[] = {
        {"nothing", [](FaultDisk&, const std::string&) {}, "verified"},
        {"a bit flipped on the disk", flipBlock, "failed: HASH MISMATCH: block 2 dest "},
        {"a bit flipped in one read", [](FaultDisk& d, const std::string& p) { d.flip({.ops = "read", .pattern = p}); },
         "verified", "Unstable read: F.mov on "},
        {"a read error",
         [](FaultDisk& d, const std::string& p) { d.fail(EIO, {.ops = "read", .skip = 1, .times = 0, .pattern = p}); },
         "failed: verify: read "},
        {"too short", [](FaultDisk& d, const std::string& p) { std::filesystem::resize_file(d.root() + p, 70000); },
         "failed: size mismatch: 70000 != "},
        {"too long", [](FaultDisk& d, const std::string& p) { std::filesystem::resize_file(d.root() + p, 1 << 20); },
         "failed: size mismatch: 1048576 != "},
        {"removed", [](FaultDisk& d, const std::string& p) { IO::unlink(d.root() + p); }, "failed: verify: open "},
    };
    for (const bool primary : {true, false})
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (primary ? ", read by the render" : ", read in the background"));
            FaultDisk disk;
            report = {};
            inputs = {};
            copyTo({disk.root() + "/C", temp / "b"}, {{"F.mov", 5}, {"G.mov", 5}});
            inputs.preferred = primary ? 0 : 1;
            c.harm(disk, at);
            start().startBackground();
            if (const auto lease = session->prepare(clip("F.mov"), 0); lease && lease->url())
                try {
                    fetch(*lease);
                } catch (const std::exception&) { // as a render does that gets no more data
                }
            const auto outcome = session->finish(nullptr, {});
            EXPECT_THAT(states(outcome, 0)[0], ::testing::StartsWith("F.mov " + c.result));
            EXPECT_EQ(states(outcome, 0)[1], "G.mov verified");
            EXPECT_EQ(states(outcome, 1), allOf("verified"));
            EXPECT_TRUE(outcome.verified);
            EXPECT_EQ(outcome.notes.size(), c.note.empty() ? 0U : 1U);
            if (!outcome.notes.empty()) {
                EXPECT_THAT(outcome.notes[0], ::testing::StartsWith(c.note));
            }
        }
}

TEST_F(VerifySessionTest, AFolderThatIsGoneFailsItsFilesAndNoOthers) {
    copyTo({temp / "a", temp / "b"}, {{"A.mov", 2}, {"note.txt", 1}});
    inputs.check = [gone = temp / "b"](const std::string& card) {
        if (card == gone)
            throw std::runtime_error("unmounted");
    };
    for (const std::size_t primary : {0, 1}) {
        inputs.preferred = primary;
        EXPECT_EQ(start().prepare(clip("A.mov"), primary) != nullptr, primary == 0);
        const auto outcome = session->finish(nullptr, {});
        EXPECT_EQ(states(outcome, 0), allOf("verified"));
        EXPECT_EQ(states(outcome, 1),
                  allOf("failed: the card folder on the destination disappeared (disk disconnected?)"));
    }
}

TEST_F(VerifySessionTest, WhatIsWrongOnSeveralDisksIsAskedOfTheCard) {
    copyTo({temp / "a", temp / "b"}, {{"A.mov", 6}, {"B.mov", 2}});
    for (const auto& card : inputs.cardPaths)
        for (const std::size_t number : {0, 1, 3, 5})
            FileTree::flipBit(card + "/A.mov", static_cast<std::int64_t>(number * block));
    FileTree::flipBit(inputs.cardPaths[1] + "/B.mov", 0);
    const auto onDisks = [&](std::size_t file, std::int64_t number) {
        const std::string bytes = FileTree::read(inputs.cardPaths[0] + "/" + report.files[file].path);
        return blockHash(bytes.data() + static_cast<std::size_t>(number) * block, block);
    };
    using Answer = std::optional<std::uint64_t>;
    const std::pair<std::function<Answer(std::size_t, std::int64_t)>, std::string> cases[] = {
        {{}, "could not read the card again (no longer in the reader?) — insert it and start Copy again."},
        {[](auto, auto) { return Answer(); }, "could not read the card again"},
        {[&](std::size_t f, std::int64_t b) { return Answer(inputs.blocks[f][static_cast<std::size_t>(b)]); },
         "the card now gives the recorded data"},
        {[&](std::size_t f, std::int64_t b) { return Answer(onDisks(f, b)); }, "the card now gives the same data as"},
        {[](auto, auto) { return Answer(7); }, "the card now gives data different from"},
    };
    for (const auto& [card, verdict] : cases) {
        int asked = 0;
        if (card)
            inputs.cardBlock = [&, ask = card](std::size_t file, std::int64_t number) {
                ++asked;
                return ask(file, number);
            };
        start();
        {
            const auto lease = session->prepare(clip("A.mov"), 0);
            fetch(*lease);
        }
        const auto outcome = session->finish(nullptr, {});
        EXPECT_EQ(asked, card ? 3 : 0);
        Strings expected;
        for (const int number : {0, 1, 3})
            expected.push_back("A.mov: block " + std::to_string(number) + " mismatches the same way on " +
                               inputs.cardPaths[0] + ", " + inputs.cardPaths[1] + " — " + verdict);
        expected.emplace_back("A.mov: 1 more block mismatches the same way on several destinations (the card was not "
                              "read again for it).");
        ASSERT_EQ(outcome.notes.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i)
            EXPECT_THAT(outcome.notes[i], ::testing::StartsWith(expected[i]));
        EXPECT_THAT(states(outcome, 1)[1], ::testing::StartsWith("B.mov failed: HASH MISMATCH: block 0 dest "));
    }
}

// Two destinations on the disk that hangs share one thread, and lose what it has not read. The thread outlives all.
TEST_F(VerifySessionOnFaultyDisks, ADiskThatHangsIsGivenUpAndTheOtherEndsVerified) {
    FaultDisk disk;
    copyTo({temp / "a", disk.root() + "/b", disk.root() + "/c"}, {{"A.mov", 2}, {"B.txt", 2}, {"C.txt", 2}});
    disk.stall({.ops = "read", .skip = 3, .pattern = "*"});
    {
        PauseGate own;
        VerifySession hanging(report, inputs, own, {1min, 300ms});
        hanging.startBackground();
        until([&] { return disk.hits() == 1; });
        until([&] { return hanging.currentFiles() == Strings{"B.txt"}; }); // one thread for the disk, none elsewhere
        disk.stall({.ops = "lookup", .times = 0, .pattern = "*"});         // it does not even say what is on it
        const auto outcome = hanging.finish(nullptr, {});
        const std::string hung = " failed: the disk stopped responding during verification";
        EXPECT_EQ(states(outcome, 0), allOf("verified"));
        EXPECT_EQ(states(outcome, 1), (Strings{"A.mov verified", "B.txt" + hung, "C.txt" + hung}));
        EXPECT_EQ(states(outcome, 2), (Strings{"A.mov" + hung, "B.txt" + hung, "C.txt" + hung}));
        EXPECT_TRUE(outcome.verified && outcome.notes.empty() && hanging.currentFiles().empty());
        disk.clear();
        EXPECT_EQ(states(hanging.finish(nullptr, {}), 1), states(outcome, 1)) << "what comes late must not count";
    }
}

// The render goes on without what the disk does not give, and the last reading meets the disk again.
TEST_F(VerifySessionOnFaultyDisks, AClipWaitsForAHangingDiskOnlySoLong) {
    FaultDisk disk;
    copyTo({disk.root() + "/C"}, {{"A.mov", 2}, {"B.braw", 2}});
    for (const char* where : {"open", "read"}) {
        for (const bool raw : {true, false}) {
            start({200ms, 1min});
            disk.stall({.ops = where, .times = 0, .pattern = "*"});
            const auto lease =
                raw ? session->prepare(clip("B.braw", ClipFormat::braw), 0) : session->prepare(clip("A.mov"), 0);
            EXPECT_EQ(lease != nullptr, raw || std::string_view(where) == "read");
            EXPECT_EQ(states(session->soFar(), 0), allOf("written"));
            disk.clear();
            EXPECT_EQ(states(session->finish(nullptr, {}), 0), allOf("verified"));
        }
    }
}

TEST_F(VerifySessionOnFaultyDisks, OnlyTheReadersOfThatDiskHoldWhileAClipIsRead) {
    FaultDisk first;
    FaultDisk second;
    copyTo({first.root() + "/a", first.root() + "/b", second.root() + "/c"}, {{"A.mov", 2}, {"B.txt", 3}});
    const auto lease = start().prepare(clip("A.mov"), 0);
    session->startBackground();
    until([&] { return session->verifiedBytes()[2] == session->bytesToVerify()[2]; });
    until([&] { return session->currentFiles() == Strings{"B.txt"}; });
    EXPECT_EQ(first.count("read"), 0);
    EXPECT_EQ(fetch(*lease), content["A.mov"]);
    EXPECT_EQ(first.count("read"), 2);
    EXPECT_EQ(session->verifiedBytes()[0], 2 * static_cast<std::int64_t>(block) - 100); // while the lease lasts
    lease->end();
    until([&] { return session->verifiedBytes()[1] == session->bytesToVerify()[1]; });
    EXPECT_EQ(states(session->finish(nullptr, {}), 0), allOf("verified"));
    EXPECT_EQ(first.count("read"), 2 * 5);
}

TEST_F(VerifySessionTest, APauseLongerThanTheLimitFailsNoDisk) {
    copyTo({temp / "a", temp / "b"}, {{"A.mov", 2}, {"B.txt", 2}});
    const auto worker = gate.work();
    gate.pause();
    start({1min, 100ms});
    std::thread resuming([&] {
        until([&] { return gate.pausedTotal() > 0.4; });
        gate.resume();
    });
    const auto outcome = session->finish(worker.get(), {});
    resuming.join();
    EXPECT_EQ(states(outcome, 0), allOf("verified"));
    EXPECT_EQ(states(outcome, 1), allOf("verified"));
}

TEST_F(VerifySessionOnFaultyDisks, ACancelLeavesWhatWasFoundAndPromisesNothing) {
    FaultDisk disk;
    copyTo({disk.root() + "/a"}, {{"A.txt", 2}, {"B.txt", 20}, {"C.mov", 2}});
    FileTree::flipBit(disk.medium() + "/a/A.txt", 0);
    disk.delay(20, {.ops = "read", .times = 0, .pattern = "*/B.txt"});
    start();
    const auto outcome = session->finish(nullptr, [&] { return disk.count("read") > 6; });
    EXPECT_FALSE(outcome.verified);
    EXPECT_TRUE(outcome.notes.empty());
    EXPECT_THAT(states(outcome, 0)[0], ::testing::StartsWith("A.txt failed: HASH MISMATCH"));
    EXPECT_EQ(states(outcome, 0)[1], "B.txt written");
    session->record(outcome, report);
    EXPECT_TRUE(!report.verified && report.verifyPending == true && report.files[0].destinations[0] == "failed");
    EXPECT_EQ(session->prepare(clip("C.mov"), 0), nullptr);
}

// Data that stays in memory says nothing about the disk: it is not tapped, and what is read of it is told.
TEST_F(VerifySessionTest, AFileThatStaysInMemoryIsNotTapped) {
    const TempFolder memory("/dev/shm");
    copyTo({memory / "a"}, {{"A.mov", 2}, {"B.braw", 2}});
    EXPECT_EQ(start().prepare(clip("A.mov"), 0), nullptr);
    EXPECT_NE(session->prepare(clip("B.braw", ClipFormat::braw), 0), nullptr);
    EXPECT_EQ(states(session->soFar(), 0), allOf("written"));
    const auto outcome = session->finish(nullptr, {});
    EXPECT_EQ(states(outcome, 0), allOf("verified"));
    EXPECT_EQ(outcome.throughCache, std::vector<std::int64_t>{2});
    ASSERT_EQ(outcome.notes.size(), 1U);
    EXPECT_THAT(outcome.notes[0], ::testing::HasSubstr(", 2 files — the file stayed in memory"));
}

TEST_F(VerifySessionTest, CloseLeavesNoAddressAndALeaseMayOutliveTheSession) {
    copyTo({temp / "a"}, {{"A.mov", 2}});
    const auto lease = start().prepare(clip("A.mov"), 0);
    EXPECT_EQ(fetch(*lease, "0-0").size(), 1U);
    session->close();
    EXPECT_EQ(session->prepare(clip("A.mov"), 0), nullptr);
    session.reset();
    EXPECT_THROW(fetch(*lease), std::exception);
    EXPECT_EQ(lease->activity(), 0);
    lease->end();
    lease->end();
}

// Everything at once: forty clips, some of which end early, pauses, and a disk that fails and answers late.
TEST_F(VerifySessionOnFaultyDisks, StandsFortyLeasesWithPausesCancelsAndAFailingDisk) {
    FaultDisk disk;
    std::vector<Copied> files;
    for (int i = 0; i < 40; ++i)
        files.push_back({"C" + std::to_string(i) + (i % 5 == 0 ? ".braw" : i % 7 == 0 ? ".txt" : ".mov"), 6});
    copyTo({disk.root() + "/a", disk.root() + "/b", temp / "c"}, files);
    disk.delay(2, {.ops = "read", .times = 0, .pattern = "*"});
    disk.fail(EIO, {.ops = "read", .times = 0, .pattern = "*/C1?.*"});
    start().startBackground();
    Flag over;
    std::thread pausing([&] {
        while (!over.isSet()) {
            gate.pause();
            std::this_thread::sleep_for(3ms);
            gate.resume();
            session->soFar();
            session->verifiedBytes();
            session->currentFiles();
        }
    });
    const auto worker = gate.work();
    for (int i = 0; i < 40; ++i) {
        worker->waitWhilePaused({});
        const auto lease = session->prepare(
            clip(files[static_cast<std::size_t>(i)].path, i % 5 == 0 ? ClipFormat::braw : ClipFormat::video), 0);
        if (!lease || !lease->url())
            continue;
        std::thread reading([&] {
            try {
                fetch(*lease, i % 3 == 0 ? "100000-200000" : "");
            } catch (const std::exception&) { // the disk fails, or the lease has ended
            }
        });
        if (i % 4 == 0)
            lease->end(); // as a cancelled render does
        reading.join();
    }
    const auto outcome = session->finish(worker.get(), {});
    over.set();
    pausing.join();
    EXPECT_TRUE(outcome.verified);
    for (std::size_t d = 0; d < 3; ++d)
        for (std::size_t i = 0; i < 40; ++i)
            EXPECT_EQ(outcome.results[d][i].state == FileState::failed, d < 2 && i / 10 == 1) << d << " " << i;
}

} // namespace
} // namespace velmora::test
