#include "engine/Preflight.h"

#include "engine/Layout.h"
#include "engine/OffloadOptions.h"
#include "engine/Scanner.h"
#include "platform/VolumeFacts.h"
#include "support/AsNobody.h"
#include "support/CodedRefusal.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using test::TempFolder;

constexpr std::int64_t plenty = std::int64_t{1} << 50;

// A card and two destinations in one temporary folder: one drive, which has to be allowed.
class PreflightTest : public testing::Test {
protected:
    PreflightTest() {
        test::FileTree::write(card + "/DCIM/a.mov", std::string(1000, 'a'));
        test::FileTree::write(card + "/DCIM/b.mov", std::string(24, 'b'));
        fs::create_directories(folder / "one");
        fs::create_directories(folder / "two");
        options.allowSourceVolume = true;
        options.allowSameDevice = true;
    }

    Preflight::Result prepare() {
        return Preflight::prepare(inputs, options, {}, [this](const std::string&) { return capacity; });
    }

    // The code and the sentence of the refusal, which must have left everything as it was.
    std::string refusal(bool look = true) {
        const auto contents = [&] {
            return look ? test::FileTree::contents(folder.path()) : std::map<std::string, std::string>{};
        };
        const auto before = contents();
        const std::string text = test::codedRefusal([this] { prepare(); });
        EXPECT_EQ(contents(), before) << text;
        return text;
    }

    TempFolder folder;
    std::string card = folder / "card";
    Preflight::Inputs inputs{card, {folder / "one", folder / "two"}, {}, {}};
    OffloadOptions options;
    std::optional<IO::Capacity> capacity = IO::Capacity{plenty, plenty};
};

TEST_F(PreflightTest, RefusesInAFixedOrderAndCreatesNothing) {
    const std::string one = folder / "one";
    const std::string missing = folder / "missing";
    fs::create_directories(folder / "empty/_Proxy");
    test::FileTree::write(folder / "empty/.DS_Store", "junk");
    test::FileTree::write(folder / "empty/._x", "junk");
    const std::string empty = folder / "empty";
    const std::string inside = empty + "/Backup";
    fs::create_directories(inside);

    // Everything is wrong at once; each step shows what is found and puts that one thing right.
    options = {};
    options.chunkSize = 6000;
    options.bufferCount = 1;
    inputs = {missing, {}, {}, "2026-3-14"};
    capacity = IO::Capacity{1000, 10};
    const std::vector<std::pair<std::string, std::function<void()>>> steps{
        {"chunkSize: Block size must be a multiple of 4096 B and at most 1 GiB (got 6000).",
         [&] { options.chunkSize = 4096; }},
        {"bufferCount: Buffer count must be at least 2 (got 1).", [&] { options.bufferCount = 2; }},
        {"date: Date must be YYYY-MM-DD (got “2026-3-14”).", [&] { inputs.date = "2026-03-14"; }},
        {"sourceNotFound: Source not found: " + missing, [&] { inputs.source = empty; }},
        {"noDestination: No destination selected.", [&] { inputs.destRoots = {inside, missing, inside + "/"}; }},
        {"duplicateDestination: Destination added twice: " + inside + "/", [&] { inputs.destRoots.pop_back(); }},
        {"sourceIsOffload: The source looks like an earlier offload (it has _REPORT, _PROXY or ascmhl) — copy the "
         "original card, or remove those folders.",
         [&] { fs::rename(folder / "empty/_Proxy", folder / "empty/Proxy"); }},
        {"sameVolumeAsSource: Destination " + inside + " is on the same drive as the source.",
         [&] { options.allowSourceVolume = true; }},
        {"sameVolumeAsSource: Destination " + inside + " lies inside the source " + empty +
             " — a copy must lie outside it.",
         [&] { inputs.destRoots[0] = one; }},
        {"destinationNotFound: Destination not found: " + missing + " — is the drive connected?",
         [&] { inputs.destRoots[1] = folder / "two"; }},
        {"sharedVolume: Two destinations are on the same drive (" + (folder / "two") +
             ") — that is not a second copy. Allow it with --allow-same-device.",
         [&] { options.allowSameDevice = true; }},
        {"emptySource: There are no files on the source.", [&] { inputs.source = card; }},
        {"noSpace: Not enough space on ", [&] { capacity = IO::Capacity{plenty, plenty}; }},
        {"passed", [] {}},
    };
    for (const auto& [expected, fix] : steps) {
        EXPECT_EQ(refusal().substr(0, expected.size()), expected);
        fix();
    }
}

TEST_F(PreflightTest, RefusesDisksThatAreAwayAndBackupsThatHoldTheirSource) {
    const std::string bare = "/mnt/velmora-preflight-" + std::to_string(::getpid());
    const std::string link = folder / "link";
    fs::create_symlink(bare, link);
    const auto into = [&](const std::string& source, const std::string& cardPath) {
        return test::codedRefusal([&] { Preflight::checkInto(source, {cardPath}, options); });
    };
    EXPECT_EQ(into(card, card + "/DCIM"), "sameVolumeAsSource: The card folder " + card +
                                              "/DCIM lies inside the source " + card +
                                              " — a copy must lie outside it.");
    fs::create_directories(folder / "two/_REPORT");
    fs::create_directories(folder / "two/DCIM");
    EXPECT_EQ(into(folder / "two/DCIM", folder / "two"), "sameVolumeAsSource: The source " + (folder / "two/DCIM") +
                                                             " lies inside the card folder " + (folder / "two") +
                                                             " — give the original card.");
    EXPECT_NE(into(card, folder.path()).substr(0, 4), "same") << "no card folder: for the planner to tell";
    EXPECT_EQ(into(card, folder / "one"), "passed");
    std::error_code none;
    if (VolumeFacts::isVolumeRoot("/mnt") || !fs::create_directories(bare + "/sub", none))
        GTEST_SKIP() << "needs an empty /mnt that takes folders";
    for (const std::string& root : {bare, bare + "/sub", link + "/sub"}) {
        inputs.destRoots = {folder / "one", root};
        EXPECT_EQ(refusal(), "destinationNotFound: Destination not found: " + root + " — is the drive connected?");
    }
    EXPECT_EQ(into(card, bare + "/sub"), "appendUnavailable: The earlier backup is not available: " + bare +
                                             "/sub — connect the drive, or make a full copy.");
    if (::mount("tmpfs", bare.c_str(), "tmpfs", 0, "size=1m") == 0) {
        fs::create_directories(bare + "/sub");
        EXPECT_EQ(refusal(), "passed") << "a disk is there";
        EXPECT_EQ(into(card, bare + "/sub"), "passed");
        ::umount(bare.c_str());
    }
    fs::remove_all(bare);
}

TEST_F(PreflightTest, RefusesCopiesThatWouldLieWithTheirSource) {
    inputs.date = "2026-03-03";
    inputs.cardName = "A001";
    fs::create_directory_symlink(card + "/DCIM", folder / "two/2026-03-03");
    EXPECT_EQ(refusal(), "sameVolumeAsSource: The copy " + (folder / "two/2026-03-03/A001") +
                             " would lie inside the source " + card + " — it must lie outside it.");
    fs::create_directories(folder / "one/2026-03-03/A001/_REPORT");
    inputs.source = folder / "one/2026-03-03/A001/DCIM";
    test::FileTree::write(inputs.source + "/clip.mov", "x");
    const std::string root = folder / "one/2026-03-03/A001/more";
    fs::create_directories(root);
    inputs.destRoots = {root};
    EXPECT_EQ(refusal(), "sameVolumeAsSource: Destination " + root + " lies in the card folder that holds the source " +
                             inputs.source + " — a copy must lie outside it.");
}

TEST_F(PreflightTest, TakesBlockSizesOfWholePagesUpToOneGibibyte) {
    for (const std::int64_t size : {0L, 6000L, -4096L, 1073745920L, INT64_MIN, 4096L, 1073741824L}) {
        options.chunkSize = size;
        EXPECT_EQ(refusal() == "passed", size == 4096 || size == 1 << 30) << size;
    }
}

TEST_F(PreflightTest, SaysWhatItHasNoRightTo) {
    VELMORA_NEEDS(test::notRoot());
    for (const std::string& path : {folder.path(), card, folder / "one"})
        fs::permissions(path, fs::perms(0755));
    fs::permissions(folder / "two", fs::perms(0777));
    inputs.destRoots = {folder / "two", folder / "one"};
    std::string found;
    test::asNobody([&] { found = refusal(); });
    EXPECT_EQ(found, "destinationNotWritable: Cannot write to the destination: " + (folder / "one"));
    fs::permissions(card, fs::perms(0700));
    test::asNobody([&] { found = refusal(false); });
    EXPECT_EQ(found, "noReadAccess: macOS does not let Velmora read " + card +
                         ". Allow it in System Settings › Privacy & Security › Files and Folders › Velmora › Removable "
                         "Volumes (every new build asks again), then add the card again.");
}

TEST_F(PreflightTest, TakesCardsThatOnlyLookWrong) {
    test::FileTree::write(card + "/_report", "a file, no folder of an earlier offload");
    fs::create_directory_symlink("DCIM", card + "/ascmhl");
    EXPECT_EQ(refusal(), "passed");
    fs::remove_all(card);
    test::FileTree::write(card + "/\xff.mov", "cannot be copied, and has to be told of");
    const OffloadPlan plan = prepare().plan;
    EXPECT_TRUE(plan.scan.files.empty());
    EXPECT_EQ(plan.scan.uncopied.size(), 1U);
}

TEST_F(PreflightTest, PlansAFullCopyUnderOneFreeName) {
    test::FileTree::write(folder / "two/2026-03-14/_Report_/x", "x");
    inputs.cardName = "_Report";
    inputs.date = "2026-03-14";
    const OffloadPlan plan = prepare().plan;
    EXPECT_EQ(plan.cardPaths(),
              (std::vector<std::string>{folder / "one/2026-03-14/_Report__2", folder / "two/2026-03-14/_Report__2"}));
    EXPECT_EQ(plan.scan.files.size(), 2U);
    inputs.listing = Scanner::scan(card + "/DCIM");
    inputs.listing->files.pop_back();
    EXPECT_EQ(prepare().plan.scan.files, inputs.listing->files) << "what was listed a moment ago is not listed again";
    inputs = {inputs.source, inputs.destRoots, {}, {}};
    EXPECT_EQ(prepare().plan.cardPaths()[0], folder / "one/" + Layout::today() + "/card");
}

TEST_F(PreflightTest, AsksForTheBytesAndAnAllowanceOnEveryDisk) {
    // Two folders of one disk: what both need must fit it.
    constexpr std::int64_t need = 2 * (1024 + 2 * 65536 + 67108864);
    capacity = IO::Capacity{need, need};
    const Preflight::Space space = prepare().space;
    ASSERT_EQ(space.lines.size(), 1U);
    EXPECT_EQ(space.lines[0].need.total(), need);
    ASSERT_EQ(space.warnings.size(), 1U) << "nothing will be left";
    EXPECT_EQ(space.lines[0].need.card, 2 * 1024);
    capacity->free = need - 1;
    const std::string text = refusal();
    EXPECT_EQ(text.substr(0, 8), "noSpace:");
    EXPECT_NE(text.find("(2 kB cards, reports and overhead 134.5 MB), free"), std::string::npos) << text;
    // What was freed a moment ago shows at the second look.
    int looks = 0;
    EXPECT_NO_THROW(Preflight::prepare(inputs, options, {},
                                       [&](const auto&) { return IO::Capacity{plenty, ++looks > 2 ? plenty : 0}; }));
    capacity.reset();
    EXPECT_EQ(refusal(), "passed") << "a disk that does not know its size";
    capacity = IO::Capacity{plenty, need + 10};
    const auto withExtra = [&] {
        const auto extra = [](const SourceScan& scan) { return SpaceExtra{scan.totalBytes() - 1014, 0, false, {}}; };
        Preflight::prepare(inputs, options, extra, [&](const auto&) { return capacity; });
    };
    EXPECT_NO_THROW(withExtra());
    capacity->free -= 1;
    EXPECT_THROW(withExtra(), OffloadError);

    // A run that finishes another needs room for what is missing only.
    OffloadPlan plan;
    plan.scan.files = {{"whole", 1'000'000, {}}, {"begun", 50'000, {}}};
    plan.destRoots = {"/a", "/b"};
    plan.tasks.resize(2);
    plan.tasks[0].write = {false, true};
    plan.tasks[1].resume = PartCheckpoint{"begun", 50'000, {}, 4096, {1, 2, 3}};
    constexpr std::int64_t allowance = 67108864 + 2 * 65536;
    constexpr std::int64_t begun = 50'000 - 3 * 4096;
    EXPECT_EQ(Preflight::demands(plan),
              (std::vector<SpaceNeed>{{begun, 0, allowance}, {begun + 1'000'000, 0, allowance}}));
}

} // namespace
} // namespace velmora
