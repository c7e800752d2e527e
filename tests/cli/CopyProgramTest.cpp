#include "cli/Program.h"
#include "cli/TerminalText.h"
#include "support/FaultDisk.h"

namespace velmora {
namespace {

using test::Program;
using test::FileTree::contents;
using testing::HasSubstr;
using Arguments = std::vector<std::string>;
namespace fs = std::filesystem;

constexpr const char* date = "2026-03-14";

class CopyProgramTest : public testing::Test {
protected:
    test::TempFolder temp;
    test::TempFolder reader{"/dev/shm"}; // the card lies on a volume of its own
    std::string card = reader / "CARD";
    std::string a = temp / "a";
    std::string b = temp / "b";

    void SetUp() override {
        test::FileTree::make(card,
                             {{"DCIM/C1.mov", 3'000'000}, {"DCIM/映像 🎬.mov", 1'000'001}, {"empty", 0}, {"void/", 0}});
        fs::create_directory(a);
        fs::create_directory(b);
    }
    Arguments copy(const Arguments& more = {}, const std::string& firstRoot = {}) const {
        return Program::copying(card, {firstRoot.empty() ? a : firstRoot, b}, date, more);
    }
    static std::string backup(const std::string& root, const std::string& name = "CARD") {
        return root + "/" + date + "/" + name;
    }
    // The card's own files in a backup.
    static std::map<std::string, std::string> copied(const std::string& folder) {
        auto all = contents(folder);
        std::erase_if(all, [](const auto& entry) {
            return entry.first.starts_with("_REPORT") || entry.first.starts_with("ascmhl");
        });
        return all;
    }
    static bool holdsTemporaryFile(const std::string& folder) {
        return std::ranges::any_of(contents(folder), [](const auto& entry) {
            return entry.first.find("offload-part") != std::string::npos ||
                   entry.first.find(".tmp") != std::string::npos || entry.first.find("flush") != std::string::npos;
        });
    }
    static bool isStatus(const nlohmann::json& event) { return event["event"] == "status"; }
};

TEST_F(CopyProgramTest, CopiesToAllDisksAndGivesBothPromises) {
    Program program(copy({"--project", "Night & Day"}));
    ASSERT_EQ(program.wait(), 0) << program.err() << program.out();
    for (const auto& root : {a, b}) {
        EXPECT_EQ(copied(backup(root)), contents(card));
        EXPECT_FALSE(holdsTemporaryFile(root));
    }
    EXPECT_NE(program.out().find("Safe to eject\nSafe to format\n"), std::string::npos) << program.out();
    EXPECT_NE(program.out().find("The copy is verified — the card is safe to eject and format."), std::string::npos);
    EXPECT_EQ(program.err().find('\r'), std::string::npos) << "no progress line outside a terminal";

    Program again(copy()); // a second card of that name never mixes into the first
    EXPECT_EQ(again.wait(), 0);
    EXPECT_EQ(copied(backup(a, "CARD_2")), contents(card));
}

TEST_F(CopyProgramTest, EveryRefusalIsOneForPeopleAndForProgramsAndCreatesNothing) {
    const std::string missing = temp / "missing";
    const std::string blank = temp / "blank";
    fs::create_directory(blank);
    const struct {
        Arguments arguments;
        int status;
        std::string code;
        std::string error;
    } cases[] = {
        {{"copy", missing, "--dest", a}, 3, "sourceNotFound", "Source not found: " + missing},
        {{"copy", blank, "--dest", a, "--allow-source-volume"}, 3, "emptySource", "There are no files on the source."},
        {{"copy", card, "--dest", a, "--block-mib", "9223372036854775807"}, 3, "chunkSize", ""},
        {copy({}, card + "/DCIM"), 3, "sameVolumeAsSource",
         "Destination " + card + "/DCIM lies inside the source " + card + " — a copy must lie outside it."},
        {{"copy", card, "--dest", a, "--date", "2026-02-31"}, 3, "date", "Date must be"},
        {{"copy", card}, 2, "", "--dest is required"},
        {{"copy"}, 2, "", "SOURCE"},
        {copy({"--block-mib", "x"}), 2, "", "--block-mib"},
        {copy({"--faster"}), 2, "", "--faster"},
        {copy({temp / "second"}), 2, "", "second"},
        {{"append", card}, 2, "", "--into"},
        {{"verify"}, 2, "", "PATH"},
        {{"verify", missing}, 4, "", "Folder not found: " + missing},
        {{"verify", card}, 3, "noHashRecord", card + " has no ASC MHL and no checksum list — nothing to compare"},
        {{"inspect", missing}, 4, "", "Cannot read the card"},
        {{"settings", "no.such", "1"}, 2, "", "no.such"},
        {{"eject"}, 2, "", "PATH"},
    };
    for (const auto& [arguments, status, code, error] : cases) {
        Program plain(arguments);
        EXPECT_EQ(plain.wait(), status) << error;
        EXPECT_THAT(plain.out() + "\n" + plain.err(),
                    HasSubstr(code.empty() ? error : "\nrefused: " + code + ": " + error));
        EXPECT_EQ(plain.err().find("suggestion") != std::string::npos, code == "emptySource")
            << "the card is looked at when all else is well";
        EXPECT_EQ(plain.out().empty(), arguments.front() != "inspect") << error;
        Arguments all = arguments;
        all.emplace_back("--json");
        Program program(all);
        EXPECT_EQ(program.wait(), status) << error;
        const auto events = program.events();
        ASSERT_EQ(std::ranges::count(events, "result", [](const auto& event) { return event["event"]; }), 1) << error;
        EXPECT_EQ(events.back()["exitStatus"], status) << error;
        EXPECT_EQ(events.back().value("errorCode", ""), code);
        EXPECT_THAT(events.back().value("error", ""), HasSubstr(error));
        EXPECT_TRUE(contents(a).empty() && contents(b).empty()) << error;
    }
}

// What comes before the copy stands still on a card that does.
class SlowCardTest : public CopyProgramTest {
protected:
    void SetUp() override {
        CopyProgramTest::SetUp();
        VELMORA_NEEDS(test::FaultDisk::unavailable());
        disk.emplace();
        test::FileTree::make(disk->root() + "/CARD", {{"DCIM/C1.mov", 3000}});
        card = disk->root() + "/CARD";
        disk->stall({.ops = "readdir", .pattern = "*DCIM*"});
    }
    void waitUntilItStands(std::int64_t hits) {
        for (int i = 0; i < 1000 && disk->hits() == hits; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::optional<test::FaultDisk> disk;
};

TEST_F(SlowCardTest, APauseDuringTheFirstLookShowsAndHolds) {
    Program program(copy({"--json"}));
    waitUntilItStands(0);
    program.signal(SIGUSR1);
    const auto pausing = program.waitFor([](const auto& event) { return event.value("paused", false); });
    ASSERT_TRUE(pausing);
    EXPECT_EQ((*pausing)["phase"], "waiting");
    disk->clear();
    ASSERT_TRUE(program.waitFor([](const auto& event) { return event.value("pauseHeld", false); }));
    EXPECT_TRUE(contents(a).empty());
    program.signal(SIGUSR2);
    EXPECT_EQ(program.wait(), 0) << program.err();
}

TEST_F(SlowCardTest, InspectPauses) {
    Program program({"inspect", card, "--json"});
    waitUntilItStands(0);
    program.signal(SIGUSR1);
    for (int i = 0; i < 500 && program.err().find("Paused") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_THAT(program.err(), testing::HasSubstr("Paused. SIGUSR2 goes on."));
    disk->clear();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(program.events().empty());
    program.signal(SIGUSR2);
    EXPECT_EQ(program.wait(), 0) << program.err();
    EXPECT_EQ(program.events().size(), 1U);
}

// Once before, though nothing but its folder tells it from another card, and once at the end.
TEST_F(SlowCardTest, ACardIsListedTwice) {
    disk->clear();
    const auto listings = [&](const Arguments& arguments) {
        const auto before = disk->count("readdir");
        Program program(arguments);
        EXPECT_EQ(program.wait(), 0) << program.err();
        return disk->count("readdir") - before;
    };
    const auto once = listings({"inspect", card});
    EXPECT_GT(once, 0);
    constexpr int topsOpened = 2; // whether the folder can be read is asked before either
    EXPECT_EQ(listings(copy()), 2 * once + topsOpened);
}

TEST_F(SlowCardTest, ACancelledLookIsAResultForPrograms) {
    for (const Arguments& arguments : {copy({"--json"}), Arguments{"inspect", card, "--json"}}) {
        const auto before = disk->hits();
        Program program(arguments);
        waitUntilItStands(before);
        program.signal(SIGINT);
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // the signal is taken by a thread of its own
        disk->clear();
        EXPECT_EQ(program.wait(), 130) << program.err();
        ASSERT_EQ(program.events().size(), 1U) << program.out();
        EXPECT_EQ(program.events().back()["phase"], "cancelled");
        EXPECT_EQ(program.events().back()["exitStatus"], 130);
        disk->stall({.ops = "readdir", .pattern = "*DCIM*"});
    }
}

TEST_F(CopyProgramTest, ShowsWhatCanBeAskedAndAnswersIt) {
    for (const Arguments& nothing : {Arguments{}, Arguments{"kopy", card}}) {
        Program program(nothing);
        EXPECT_EQ(program.wait(), 2);
        EXPECT_THAT(program.err(), HasSubstr("--help"));
        EXPECT_EQ(program.out(), "");
    }
    for (const Arguments& question : {Arguments{"--version"}, Arguments{"--help"}, Arguments{"copy", "--help"}}) {
        Program program(question);
        EXPECT_EQ(program.wait(), 0);
        EXPECT_NE(program.out().find("velmora"), std::string::npos) << program.out();
        EXPECT_EQ(program.err(), "");
    }
}

TEST_F(CopyProgramTest, FailedFilesAreToldAndDenyBothPromises) {
    test::FileTree::write(card + "/bad\xff name", "x"); // no record can hold this name
    Program program(copy());
    EXPECT_EQ(program.wait(), 1) << program.err();
    EXPECT_NE(program.out().find("Do not eject\nDo not format\n"), std::string::npos) << program.out();
    EXPECT_NE(program.out().find("bad\\xFF name"), std::string::npos) << program.out();
    EXPECT_EQ(copied(backup(a)).size(), contents(card).size() - 1);
}

TEST_F(CopyProgramTest, PromisesNothingWhereARecordDoesNotStand) {
    VELMORA_NEEDS(test::FaultDisk::unavailable());
    // Each record goes by a temporary name, so it is known by its turn in its folder: JSON, text, checksum list;
    // generation, chain.
    const std::pair<std::string, std::int64_t> records[] = {
        {"_REPORT", 0}, {"_REPORT", 1}, {"_REPORT", 2}, {"ascmhl", 0}, {"ascmhl", 1}};
    for (const auto& [folder, turn] : records) {
        const std::string record = folder + " " + std::to_string(turn);
        test::FaultDisk disk;
        disk.fail(EIO, {.ops = "rename", .skip = turn, .times = 1, .pattern = "*/" + folder + "/*"});
        Program program(copy({"--json", "--name", "R"}, disk.root()));
        EXPECT_EQ(program.wait(), 1) << record << program.err();
        const auto result = program.events().back();
        EXPECT_FALSE(result["safeToEject"]) << record;
        EXPECT_FALSE(result["safeToFormat"]) << record;
        EXPECT_TRUE(result["warning"].get<std::string>().starts_with("Could not write the verification result ("))
            << result;
        // The other disk's record must not promise either what does not hold here.
        const auto other = test::FileTree::read(backup(b, "R") + "/_REPORT/offload_report.txt");
        EXPECT_NE(other.find("UNFINISHED — do not format the card yet"), std::string::npos) << other;
        fs::remove_all(backup(b, "R"));
    }
}

TEST_F(CopyProgramTest, StreamsJsonAndSurvivesAReaderThatGoesAway) {
    Program program(copy({"--json"}));
    ASSERT_EQ(program.wait(), 0) << program.err();
    const auto events = program.events();
    ASSERT_GE(events.size(), 2U);
    EXPECT_TRUE(std::all_of(events.begin(), events.end() - 1, isStatus));
    const auto& result = events.back();
    EXPECT_EQ(result["event"], "result");
    EXPECT_EQ(result["exitStatus"], 0);
    EXPECT_EQ(result["phase"], "done");
    EXPECT_EQ(result["totalFiles"], 3);
    EXPECT_EQ(result["destinations"][1]["cardPath"], backup(b));

    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    ::close(pipe[0]);
    Program unread(copy({"--json", "--name", "UNREAD"}), {.out = pipe[1]});
    ::close(pipe[1]);
    EXPECT_EQ(unread.wait(), 4) << unread.err();
    EXPECT_EQ(copied(backup(b, "UNREAD")), contents(card)) << "the copy does not stop for it";
}

TEST_F(CopyProgramTest, WhatCouldNotBePrintedIsNoSuccess) {
    ASSERT_EQ(Program(copy({"--name", "K"})).wait(), 0);
    const std::string folder = backup(a, "K");
    const std::pair<Arguments, int> cases[] = {
        {copy({"--name", "FULL"}), 4},
        {{"append", card, "--into", folder, "--into", backup(b, "K"), "--compare"}, 4},
        {{"verify", folder}, 4},
        {{"inspect", card, "--json"}, 4},
        {{"history"}, 4},
        {{"settings"}, 4},
        {{"volumes"}, 4},
        {{"--version"}, 4},
        {{"copy", "--help"}, 4},
        {{"verify", folder, "--machine"}, 0}, // has nothing to print
        {{"verify", card}, 3}};
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const auto& [arguments, status] : cases) {
        Program unwritten(arguments, {.out = full});
        EXPECT_EQ(unwritten.wait(), status) << arguments.front() << unwritten.err();
        EXPECT_EQ(unwritten.err().find("No space left on device") != std::string::npos, status == 4) << unwritten.err();
        Program without(arguments, {.closed = {STDIN_FILENO, STDOUT_FILENO}});
        EXPECT_EQ(without.wait(), status) << arguments.front() << without.err();
    }
    ::close(full);
    // The numbers of closed streams are taken by no lock and no copy.
    Program silent(copy({"--name", "SILENT"}), {.environment = {"VELMORA_SETTINGS_DIR=" + temp / "settings"},
                                                .closed = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}});
    EXPECT_EQ(silent.wait(), 4);
    EXPECT_EQ(copied(backup(b, "SILENT")), contents(card));
    for (const auto& [path, text] : contents(temp / "settings"))
        EXPECT_EQ(text.find("Safe to"), std::string::npos) << path;
    if (test::FaultDisk::unavailable())
        return;
    test::FaultDisk late; // tells of it when the file is closed
    const int fd = ::open((late.root() + "/out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    late.fail(ENOSPC, {.ops = "close", .times = 0});
    EXPECT_EQ(Program({"--version"}, {.out = fd}).wait(), 4);
    ::close(fd);
}

TEST_F(CopyProgramTest, ProgressLineStaysWithinTheTerminal) {
    VELMORA_NEEDS(test::FaultDisk::unavailable());
    test::FaultDisk slow;
    slow.delay(60, {.ops = "write", .times = 0});
    Program program(copy({"--no-clips"}, slow.root()), {.terminalColumns = 50});
    ASSERT_EQ(program.wait(), 0) << program.err();
    const std::string screen = program.err();
    EXPECT_NE(screen.find("Copying"), std::string::npos) << screen;
    std::size_t drawn = 0;
    for (std::size_t at = screen.find('\r'); at != std::string::npos;) {
        if (screen.compare(at, 2, "\r\n") == 0) { // the end of a log line
            at = screen.find('\r', at + 1);
            continue;
        }
        ++drawn;
        const std::size_t end = screen.find("\x1b[K", at);
        ASSERT_NE(end, std::string::npos);
        EXPECT_LT(TerminalText::width(screen.substr(at + 1, end - at - 1)), 50U);
        at = screen.find('\r', end);
    }
    EXPECT_GE(drawn, 2U);
    EXPECT_TRUE(screen.ends_with("\r\x1b[K")) << "the line is gone when the result is printed";
}

// With a destination that stands still and two buffers, a signal arrives at a known moment: in the first file.
class SignalledCopyTest : public CopyProgramTest {
protected:
    void SetUp() override {
        CopyProgramTest::SetUp();
        VELMORA_NEEDS(test::FaultDisk::unavailable());
        disk.emplace();
        disk->stall({.ops = "write", .pattern = "*C1.mov*"});
    }
    void waitUntilItStands(Program& program) {
        ASSERT_TRUE(program.waitFor([this](const auto&) { return disk->hits() > 0; })) << program.err();
    }
    std::optional<test::FaultDisk> disk;
};

TEST_F(SignalledCopyTest, EverySignalThatEndsAProgramCancelsCleanly) {
    struct Case {
        std::vector<int> signals;
        std::vector<int> ignored;
    };
    const Case cases[] = {{{SIGINT, SIGINT}, {}}, {{SIGTERM}, {}}, {{SIGHUP}, {}}, {{SIGINT}, {SIGINT}}};
    for (const auto& [signals, ignored] : cases) {
        disk->clear();
        disk->stall({.ops = "write", .pattern = "*C1.mov*"});
        const auto hits = disk->hits();
        Program program(copy({"--json", "--buffers", "2"}, disk->root()), {.ignoredSignals = ignored});
        ASSERT_TRUE(program.waitFor([&](const auto&) { return disk->hits() > hits; })) << program.err();
        for (const int signal : signals) {
            program.signal(signal);
            program.waitFor([&](const auto&) { return program.err().find("Cancelling — ") != std::string::npos; });
        }
        disk->clear();
        EXPECT_EQ(program.wait(), 130) << program.err();
        EXPECT_NE(program.err().find("Cancelling — finishing the current block, partly copied files will be deleted…"),
                  std::string::npos);
        const auto result = program.events().back();
        EXPECT_EQ(result["phase"], "cancelled");
        EXPECT_TRUE(result["happened"].get<std::string>().starts_with("Cancelled")) << result;
        EXPECT_FALSE(result["safeToEject"] || result["safeToFormat"]);
        for (const auto& root : {disk->root(), b})
            EXPECT_FALSE(holdsTemporaryFile(root));
    }
}

TEST_F(SignalledCopyTest, PausesAfterTheFileAndCountsTheStandApart) {
    Program program(copy({"--json", "--buffers", "2"}, disk->root()));
    ASSERT_NO_FATAL_FAILURE(waitUntilItStands(program));
    program.signal(SIGUSR1);
    const auto pausing = program.waitFor([](const auto& event) { return event.value("paused", false); });
    ASSERT_TRUE(pausing);
    EXPECT_FALSE((*pausing)["pauseHeld"]) << "a file is never stopped in its middle";
    disk->clear();
    ASSERT_TRUE(program.waitFor([](const auto& event) { return event.value("pausedSeconds", 0.0) > 0.4; }));
    EXPECT_EQ(program.events().back()["readBytes"], 3'000'000);
    program.signal(SIGUSR2);
    EXPECT_EQ(program.wait(), 0) << program.err();
    EXPECT_GT(program.events().back()["pausedSeconds"], 0.4);
    EXPECT_EQ(copied(backup(b)), contents(card));
    const auto report = test::FileTree::read(backup(b) + "/_REPORT/offload_report.json");
    EXPECT_GT(nlohmann::json::parse(report)["copyPausedSeconds"], 0.4);
}

TEST_F(SignalledCopyTest, SaysEachWarningOnce) {
    Program program(copy({"--buffers", "2"}, disk->root()));
    for (int i = 0; i < 1000 && disk->hits() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    test::FileTree::write(card + "/added", "while it was copied");
    disk->clear();
    EXPECT_EQ(program.wait(), 1) << program.err();
    const std::string sentence = "The card has 1 file that the backup does not";
    const std::string all = program.out() + program.err();
    const auto at = all.find(sentence);
    EXPECT_NE(at, std::string::npos) << all;
    EXPECT_EQ(all.find(sentence, at + 1), std::string::npos) << all;
}

TEST_F(CopyProgramTest, TwoProcessesAtOnceNeverMix) {
    const std::string other = reader / "OTHER";
    test::FileTree::make(other, {{"DCIM/C1.mov", 2'500'000}, {"other.txt", 10}}, 7);
    for (int round = 0; round < 5; ++round) {
        const std::string name = "N" + std::to_string(round);
        auto second = copy({"--name", name});
        second[1] = other;
        Program one(copy({"--name", name}));
        Program two(second);
        EXPECT_EQ(one.wait(), 0) << one.err();
        EXPECT_EQ(two.wait(), 0) << two.err();
        for (const auto& root : {a, b}) {
            const bool oneFirst = copied(backup(root, name)) == contents(card);
            EXPECT_EQ(copied(backup(root, name)), contents(oneFirst ? card : other));
            EXPECT_EQ(copied(backup(root, name + "_2")), contents(oneFirst ? other : card));
        }
    }
}

} // namespace
} // namespace velmora
