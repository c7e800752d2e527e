#include "cli/Program.h"
#include "engine/FolderLocks.h"
#include "platform/FileLock.h"
#include "support/FaultDisk.h"
#include "support/LoopImage.h"

namespace velmora {
namespace {

using test::Program;
using Arguments = std::vector<std::string>;
namespace fs = std::filesystem;

// The commands around a backup: they share one card history.
class BackupProgramTest : public testing::Test {
protected:
    test::TempFolder temp;
    test::TempFolder reader{"/dev/shm"}; // the card lies on a volume of its own
    std::string card = reader / "CARD";
    std::string a = temp / "a";
    std::string b = temp / "b";
    std::string folder = a + "/2026-03-14/A001";
    std::string out;
    std::string err;

    void SetUp() override {
        fs::create_directory(a);
        fs::create_directory(b);
    }
    void fill(const std::string& where) const {
        test::FileTree::make(where, {{"DCIM/one.mov", 300'000}, {"DCIM/two.mov", 100'001}, {"empty", 0}});
    }
    int run(const Arguments& arguments) {
        Program program(arguments, {.environment = {"VELMORA_SETTINGS_DIR=" + temp / "settings"}});
        const int status = program.wait();
        out = program.out();
        err = program.err();
        return status;
    }
    Arguments copyOf(const std::string& source, const Arguments& more = {}) const {
        Arguments all = Program::copying(source, {a, b}, "2026-03-14", more);
        all.insert(all.end(), {"--name", "A001"});
        return all;
    }
    int copy(const std::string& source, const Arguments& more = {}) { return run(copyOf(source, more)); }
    bool printed(const std::string& text) const { return out.find(text) != std::string::npos; }
    bool logged(const std::string& text) const { return err.find(text) != std::string::npos; }
};

TEST_F(BackupProgramTest, VerifySaysWhatIsWrongAndEndsWithIt) {
    fill(card);
    ASSERT_EQ(copy(card), 0) << err;
    const auto before = test::FileTree::contents(a);
    EXPECT_EQ(run({"verify", a + "/2026-03-14", b + "/2026-03-14/A001/"}), 0) << err;
    EXPECT_TRUE(printed(folder + "\n  Verified: all 3 files match (ASC MHL, 1 generation, xxHash64, xxHash128)\n"))
        << out;
    EXPECT_TRUE(printed("Verified 3 files (400 kB) in ")) << out;
    EXPECT_EQ(run({"verify", folder, "--machine"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(test::FileTree::contents(a), before) << "a verification writes nothing into the backup";

    test::FileTree::flipBit(folder + "/DCIM/one.mov", 299'999);
    fs::remove(folder + "/DCIM/two.mov");
    test::FileTree::write(folder + "/new\nname", "x");
    EXPECT_EQ(run({"verify", folder, "--machine"}), 1);
    EXPECT_EQ(out, "MISMATCH  DCIM/one.mov\nMISSING  DCIM/two.mov\nEXTRA    new\\x0Aname\n");
    EXPECT_EQ(run({"verify", folder, b + "/2026-03-14/A001"}), 1) << "one good folder does not hide the bad one";
    EXPECT_TRUE(printed("Mismatch: 1 file, missing 1, unreadable 0 — the files are named below.")) << out;
    EXPECT_TRUE(printed("PROBLEMS FOUND: mismatch 1, missing 1, unreadable 0, extra 1,")) << out;
    EXPECT_TRUE(printed("  1 file extra (not in the MHL).")) << out;
    Program json({"verify", folder, "--json"});
    EXPECT_EQ(json.wait(), 1);
    EXPECT_EQ(json.events().back()["missing"], nlohmann::json({"DCIM/two.mov"}));
    run({"history", "--json"});
    EXPECT_TRUE(printed("\"found\":\"mismatch 1, missing 1, unreadable 0, failed during the copy 0\"")) << out;

    // A day of which no card has a history any more; a chain that is gone is told once, and heads the folder.
    fs::remove_all(b + "/2026-03-14/A001/ascmhl");
    EXPECT_EQ(run({"verify", b + "/2026-03-14"}), 0) << err;
    EXPECT_TRUE(printed("/A001\n  Verified: all 3 files match (checksum list, xxHash64)\n")) << out;
    fs::remove(b + "/2026-03-14/A001/_REPORT/A001.xxh64");
    fs::remove(b + "/2026-03-14/A001/_REPORT/offload_report.json");
    EXPECT_EQ(run({"verify", b + "/2026-03-14"}), 1) << "a run that died before its report";
    EXPECT_TRUE(printed("BACKUP UNFINISHED: ") && !printed("proxies")) << out;
    EXPECT_TRUE(printed("velmora append CARD --into '" + b + "/2026-03-14/A001'")) << out;
    fs::remove(folder + "/ascmhl/ascmhl_chain.xml");
    EXPECT_EQ(run({"verify", folder}), 1);
    const auto at = out.find("ascmhl_chain.xml is missing");
    EXPECT_TRUE(at != std::string::npos && out.find("ascmhl_chain.xml is missing", at + 1) == std::string::npos) << out;
}

TEST_F(BackupProgramTest, VerifyPausesBetweenFiles) {
    VELMORA_NEEDS(test::FaultDisk::unavailable());
    test::FaultDisk disk;
    a = disk.root();
    fill(card);
    ASSERT_EQ(copy(card), 0) << err;
    disk.stall({.ops = "read", .pattern = "*one.mov"});
    const auto hits = disk.hits();
    Program program({"verify", a + "/2026-03-14/A001", "--json"});
    ASSERT_TRUE(program.waitFor([&](const auto&) { return disk.hits() > hits; })) << program.err();
    program.signal(SIGUSR1);
    ASSERT_TRUE(program.waitFor([](const auto& event) { return event.value("paused", false); }));
    disk.clear();
    const auto held = program.waitFor([](const auto& event) { return event.value("pausedSeconds", 0.0) > 0.3; });
    ASSERT_TRUE(held);
    EXPECT_TRUE((*held)["pauseHeld"]);
    EXPECT_EQ((*held)["bytes"], 300'000) << *held;
    program.signal(SIGUSR2);
    EXPECT_EQ(program.wait(), 0) << program.err();
    EXPECT_EQ(program.events().back()["checked"], 3);
}

TEST_F(BackupProgramTest, ACopyOfABackupStandsForNoneOfItsDisks) {
    VELMORA_NEEDS(test::LoopImage::unavailable(test::LoopImage::Kind::ext4));
    const test::LoopImage disk(test::LoopImage::Kind::ext4, 128, "ONE");
    const test::LoopImage third(test::LoopImage::Kind::ext4, 128, "THREE");
    fill(card);
    ASSERT_EQ(run({"copy", card, "--dest", disk.path(), "--name", "A001", "--date", "2026-03-14"}), 0) << err;
    const std::string own = disk / "2026-03-14/A001";
    const std::string clone = third / "2026-03-14/A001";
    fs::create_directory(third / "2026-03-14");
    fs::copy(own, clone, fs::copy_options::recursive);
    EXPECT_EQ(run({"verify", own}), 0) << err;
    EXPECT_FALSE(printed("it is a copy of the backup")) << out;
    EXPECT_EQ(run({"verify", clone}), 0) << err;
    EXPECT_TRUE(printed("Verified: all 3 files match") && printed("it is a copy of the backup")) << out;
    test::FileTree::flipBit(clone + "/DCIM/one.mov", 1);
    EXPECT_EQ(run({"verify", clone}), 1);
    run({"history", "--json"});
    EXPECT_TRUE(printed("\"clean\"") && !printed("\"found\"")) << "the copy's damage is not the backup's: " << out;
}

TEST_F(BackupProgramTest, ACopyTakesItsDefaultsFromTheSettings) {
    fill(card);
    ASSERT_EQ(run({"copy", card}), 2) << "nowhere to copy to";
    ASSERT_EQ(run({"settings", "destRoots", a}), 0);
    ASSERT_EQ(run({"settings", "verify", "false"}), 0);
    const std::string good = test::FileTree::read(temp / "settings/settings.json");
    for (const auto& [text, said] : std::map<std::string, std::string>{
             {R"({"verify":"no","destRoots":7})", "not understand: destRoots, verify;"}, {"{", "is damaged"}})
        for (const Arguments& command : {Arguments{"copy", card}, {"volumes"}, {"settings"}}) {
            test::FileTree::write(temp / "settings/settings.json", text);
            run(command);
            EXPECT_TRUE(logged(said)) << command[0] << err;
            EXPECT_EQ(test::FileTree::read(temp / "settings/settings.json"), text);
        }
    test::FileTree::write(temp / "settings/settings.json", good);
    const Arguments copy = {"copy", card, "--name", "A001", "--date", "2026-03-14", "--allow-source-volume", "--again"};
    ASSERT_EQ(run(copy), 0) << err;
    EXPECT_TRUE(logged("Destinations, from the settings: " + a) && logged("the setting verify is off")) << err;
    EXPECT_TRUE(printed("Do not format")) << out;
    // What was never read back stands in no MHL generation: the report's digests must not let a bad copy pass.
    EXPECT_EQ(run({"verify", folder}), 0);
    EXPECT_TRUE(printed("Verified: all 3 files match")) << out;
    EXPECT_TRUE(printed("3 files were never read back after the copy and are not in the MHL")) << out;
    test::FileTree::flipBit(folder + "/DCIM/two.mov", 100'000);
    EXPECT_EQ(run({"verify", folder, "--machine"}), 1);
    EXPECT_EQ(out, "MISMATCH  DCIM/two.mov\n");
    Arguments verified = copy;
    verified.push_back("--verify");
    EXPECT_EQ(run(verified), 0) << err;
    EXPECT_TRUE(printed("Safe to format")) << out;
}

TEST_F(BackupProgramTest, AKnownCardIsToldAndCopiedAgainOnlyOnDemand) {
    fill(card);
    ASSERT_EQ(copy(card), 0) << err;
    EXPECT_EQ(copy(card), 3);
    EXPECT_TRUE(logged("Card already backed up:\n  A001 — ")) << err;
    EXPECT_TRUE(logged("\nrefused: other: Card already backed up")) << err;
    EXPECT_FALSE(logged("?")) << err << "nobody is there to be asked";
    EXPECT_EQ(out, "");
    EXPECT_EQ(copy(card, {"--json"}), 3);
    EXPECT_EQ(nlohmann::json::parse(out)["errorCode"], "other");
    EXPECT_FALSE(fs::exists(a + "/2026-03-14/A001_2"));

    EXPECT_EQ(copy(card, {"--again", "--eject"}), 0) << err;
    EXPECT_TRUE(fs::exists(a + "/2026-03-14/A001_2"));
    EXPECT_TRUE(logged("Couldn't eject the card: the source is a folder, not a whole card")) << err;
    EXPECT_EQ(copy(card, {"--no-history"}), 0) << "not looked up";
    EXPECT_TRUE(fs::exists(a + "/2026-03-14/A001_3"));

    ASSERT_EQ(run({"history"}), 0);
    EXPECT_TRUE(printed("2026-03-14\n")) << out;
    EXPECT_TRUE(printed("A001_2  3 files, ")) << out;
    EXPECT_FALSE(printed("A001_3")) << "not recorded";
    EXPECT_EQ(run({"history", "--date", "2026-03-15"}), 0);
    EXPECT_EQ(out, "No card has been backed up yet.\n");
    for (int left = 2; left > 0; --left) {
        run({"history", "--json"});
        EXPECT_EQ(std::ranges::count(out, '\n'), left) << out;
        const auto entry = nlohmann::json::parse(out.substr(0, out.find('\n')));
        EXPECT_EQ(run({"history", "--forget", entry["entry"]["id"]}), 0) << err;
    }
    EXPECT_EQ(run({"history", "--forget", "../settings"}), 4);
    test::FileTree::write(temp / "settings/history.json", R"({"entries": [], "version": 2})");
    EXPECT_EQ(run({"history", "--forget", "x", "--json"}), 4);
    EXPECT_TRUE(logged("nothing was removed: a newer version") && !logged("no entry")) << err;
    EXPECT_EQ(nlohmann::json::parse(out)["error"],
              "nothing was removed: a newer version of Velmora has written the history");
    // What a verification finds is kept where no entry names the folder, or said not to be.
    EXPECT_EQ(run({"verify", folder}), 0) << err;
    EXPECT_FALSE(printed("could not be kept")) << out;
    test::FileTree::write(temp / "settings/verifications.json", R"({"version": 2})");
    EXPECT_EQ(run({"verify", folder}), 0) << err;
    EXPECT_TRUE(printed("could not be kept in the card history (a newer version")) << out;
    EXPECT_EQ(run({"verify", folder, "--json"}), 0) << err;
    EXPECT_TRUE(printed("\"kept\":false")) << out;
    fs::remove(temp / "settings/verifications.json");
    fs::remove(temp / "settings/history.json");
    EXPECT_EQ(run({"inspect", card}), 0);
    EXPECT_TRUE(printed("Not backed up yet, as far as this computer knows.")) << out;
}

TEST_F(BackupProgramTest, InspectFollowsACardThroughItsLife) {
    VELMORA_NEEDS(test::LoopImage::unavailable(test::LoopImage::Kind::ext4));
    test::LoopImage disk(test::LoopImage::Kind::ext4, 64, "A001");
    fill(disk.path());
    const auto says = [&](const std::string& text) {
        EXPECT_EQ(run({"inspect", disk.path()}), 0) << err;
        EXPECT_TRUE(printed(text)) << text << "\nnot in:\n" << out;
    };
    says("Not backed up yet");
    ASSERT_EQ(copy(disk.path()), 0) << err;
    says(" — verified, safe to format");
    says("The card is identical to the backup.");

    test::FileTree::write(disk / "DCIM/three.mov", std::string(2000, 'x'));
    says("New on the card: 1 file, 2 kB\n  DCIM/three.mov\n");
    says("velmora append '" + disk.path() + "' --into '" + folder + "' --into '" + b + "/2026-03-14/A001'");
    ASSERT_EQ(run({"append", disk.path(), "--into", folder, "--into", b + "/2026-03-14/A001"}), 0) << err;
    says("The card is identical to the backup.");

    fs::rename(folder, folder + "-away");
    test::FileTree::write(disk / "DCIM/four.mov", "4");
    says(folder + " is not there any more — do not format");
    says("velmora copy '" + disk.path() + "' --again --dest '" + a + "' --dest '" + b + "'");
    fs::rename(folder + "-away", folder);

    fs::last_write_time(disk / "DCIM/one.mov", fs::file_time_type::clock::now());
    says("1 files differ) — cannot append, only a full copy");
    says("Changed since the backup:\n  DCIM/one.mov\n");

    fs::remove_all(disk / "DCIM");
    fs::remove(disk / "empty");
    says("The card is empty — backed up earlier on ");
    test::FileTree::write(disk / "other.mov", "o");
    says("cannot append, only a full copy");
}

TEST_F(BackupProgramTest, VolumesAreListedAndOnlyCardsAreEjected) {
    EXPECT_EQ(run({"volumes", "--dest", a}), 0);
    EXPECT_TRUE(out.starts_with("NAME")) << out;
    EXPECT_TRUE(printed("destination")) << out;
    const std::pair<std::string, std::string> cases[] = {
        {temp / "nowhere", "card is not connected"},
        {a, "the source is a folder, not a whole card"},
        {"/", "the system disk cannot be ejected"},
    };
    for (const auto& [path, why] : cases) {
        EXPECT_EQ(run({"eject", path}), 4);
        EXPECT_TRUE(logged("Couldn't eject the card: " + why + "\n")) << path << err;
        EXPECT_EQ(out, "");
    }
}

TEST_F(BackupProgramTest, AHistoryHeldForTenSecondsDelaysARecordAndLosesNone) {
    fill(card);
    const std::string settings = temp / "settings";
    auto lock = FileLock::tryLock(Locks::history(settings, settings + "/locks"));
    ASSERT_TRUE(lock);
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::seconds(10));
        lock->release();
    });
    const auto start = std::chrono::steady_clock::now();
    Program program(copyOf(card), {.environment = {"VELMORA_SETTINGS_DIR=" + settings}});
    while (program.out().find("Safe to format") == std::string::npos &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(30))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    program.signal(SIGINT); // an impatient hand takes nothing away
    program.signal(SIGINT);
    EXPECT_EQ(program.wait(), 0) << program.err();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(9)) << "it was not the history's lock";
    other.join();
    const std::string all = program.out() + program.err();
    EXPECT_EQ(all.find("The card history is busy right now"), all.rfind("The card history is busy right now")) << all;
    EXPECT_NE(all.find("The card history is busy right now"), std::string::npos) << all;
    EXPECT_EQ(run({"history", "--json"}), 0);
    const auto entry = nlohmann::json::parse(out);
    EXPECT_EQ(entry["entry"]["unfinished"], false);
    EXPECT_EQ(entry["entry"]["verified"], true);
}

} // namespace
} // namespace velmora
