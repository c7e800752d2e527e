#include "engine/CopyFixture.h"

#include "base/Text.h"
#include "engine/DestWriter.h"
#include "engine/PartResume.h"
#include "engine/SourceHasher.h"

#include <fmt/format.h>

namespace velmora::test {

namespace {

// A copy that was cut off in the middle of its second file, and what a planner makes of it.
class ResumeTest : public CopyTest {
protected:
    ResumeTest() {
        options.checkpointBlocks = 2;
        put("a.bin", 6 * 4096);
        put("b.bin", 9 * 4096 + 11);
        put("c.bin", 3000);
        // As the jobs do: what the run that died has left under a final name makes way.
        prepareEngine = [](OffloadEngine& e) {
            e.setBeforeRename([](std::size_t, std::size_t, const std::string& path) { std::filesystem::remove(path); });
        };
    }
    void crashIn(std::int64_t file, std::int64_t block) {
        const auto hook = options.crashAfterBlock;
        options.crashAfterBlock = [=](std::int64_t f, std::int64_t b) { return f == file && b == block; };
        EXPECT_THROW(run(), SimulatedCrash);
        options.crashAfterBlock = hook;
    }
    // The plan that finishes it: checkpoints from the manifest of the first destination.
    OffloadPlan resumePlan() {
        OffloadPlan plan = *engine->plan();
        plan.fixedCardPaths = plan.cardPaths();
        plan.resuming = true;
        const auto parts = ManifestFile::parts(ManifestFile::read(dest(0)), 1);
        for (const SourceFile& file : plan.scan.files)
            if (const auto part = parts.find(pathKey(file.relPath)); part != parts.end())
                plan.tasks.emplace_back().resume = part->second;
            else
                plan.tasks.emplace_back();
        return plan;
    }
    void expectWhole(const OffloadReport& report) {
        EXPECT_TRUE(allVerified(report));
        for (std::size_t d = 0; d < 2; ++d)
            for (const auto& [path, content] : cardTree())
                EXPECT_TRUE(FileTree::read(dest(d) + "/" + path) == content) << path;
    }
    std::string part(std::size_t d) const { return dest(d) + "/" + DestWriter::partName("b.bin"); }
};

} // namespace

TEST_F(ResumeTest, GoesOnBehindTheCheckpointOrFromTheStart) {
    struct Case {
        const char* name;
        std::function<void(OffloadPlan&)> harm;
        std::int64_t resumed;
    };
    const Case cases[] = {
        {"all is well", [](OffloadPlan&) {}, 6 * 4096},
        {"fewer blocks", [](OffloadPlan& plan) { plan.tasks[1].resume->blocks.resize(1); }, 4096},
        {"another block size", [](OffloadPlan& plan) { plan.tasks[1].resume->blockSize = 8192; }, 0},
        {"no blocks", [](OffloadPlan& plan) { plan.tasks[1].resume->blocks.clear(); }, 0},
        {"more blocks than file", [](OffloadPlan& plan) { plan.tasks[1].resume->blocks.resize(11); }, 0},
        {"another hash", [](OffloadPlan& plan) { plan.tasks[1].resume->blocks[5] ^= 1; }, 0},
        {"garbage on the second disk", [this](OffloadPlan&) { FileTree::flipBit(part(1), 5 * 4096 + 1); }, 0},
        {"garbage on the first disk", [this](OffloadPlan&) { FileTree::flipBit(part(0), 1); }, 0},
        {"part too short", [this](OffloadPlan&) { std::filesystem::resize_file(part(0), 5 * 4096 + 4095); }, 0},
        {"part too long", [this](OffloadPlan&) { std::filesystem::resize_file(part(1), 12 * 4096); }, 0},
        {"part gone", [this](OffloadPlan&) { std::filesystem::remove(part(1)); }, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        crashIn(1, 6);
        OffloadPlan plan = resumePlan();
        c.harm(plan);
        const OffloadReport report = run(std::move(plan));
        expectWhole(report);
        EXPECT_EQ(engine->resumedBytes(), c.resumed);
        EXPECT_EQ(engine->snapshot().readBytes, report.totalBytes - c.resumed);
        EXPECT_EQ(engine->snapshot().readBytes, engine->snapshot().totalBytes);
        EXPECT_FALSE(IO::exists(part(0)));
    }
}

// Ctrl-C and a pause are heard while the part files are read; a cancel leaves them for the next run.
TEST_F(ResumeTest, TheCheckOfPartFilesTellsItsProgressAndCanBeCancelled) {
    crashIn(1, 6);
    const OffloadPlan plan = resumePlan();
    BufferPool pool(4096, 2);
    SourceHasher hasher(4096, 3, {});
    hasher.begin();
    const std::vector<std::string> folders{dest(0), dest(1)};
    std::int64_t asked = 0;
    std::int64_t read = 0;
    const PartResume::Hooks hooks{[&] { return ++asked > 8; }, [&](std::int64_t bytes) { read += bytes; }};
    EXPECT_THROW(PartResume::verify(plan.scan.files[1], *plan.tasks[1].resume, 4096, folders, hasher, pool, hooks),
                 Cancelled);
    EXPECT_EQ(read, 8 * 4096);
    expectWhole(run(plan));
    EXPECT_EQ(engine->snapshot().checkedBytes, 12 * 4096);
    EXPECT_EQ(engine->snapshot().bytesToCheck, 12 * 4096);
    EXPECT_EQ(engine->copyTimes().read, engine->snapshot().readBytes);
}

// `known` files are not read; the others are read once, whoever needs them.
TEST_F(ResumeTest, KnownFilesAreAdoptedAndMissingOnesWritten) {
    const OffloadReport first = run();
    OffloadPlan plan = resumePlan();
    const auto lines = fileLines(dest(0));
    for (std::size_t file = 0; file < 3; ++file)
        plan.tasks[file] = {{false, file == 1}, lines[file], false, {}};
    std::filesystem::remove(dest(1) + "/b.bin");
    const OffloadReport report = run(plan);
    expectWhole(report);
    EXPECT_EQ(engine->snapshot().readBytes, 9 * 4096 + 11) << "b.bin alone";
    for (std::size_t file = 0; file < 3; ++file)
        EXPECT_EQ(report.files[file].xxh64, first.files[file].xxh64);
    EXPECT_EQ(entry(report, "b.bin").rewritten, (std::vector<bool>{false, true}));
    EXPECT_EQ(fileLines(dest(1)).size(), 6U) << "adopted files have a line in this run as well";

    // The card no longer holds what the record and the first disk do.
    std::filesystem::remove(dest(1) + "/b.bin");
    plan.tasks[1].known->xxh64 = "0123456789abcdef";
    const OffloadReport differs = run(plan);
    EXPECT_THAT(entry(differs, "b.bin").sourceError.value_or(""),
                ::testing::StartsWith("the card has different content than at the backup ("));
    EXPECT_FALSE(IO::exists(dest(1) + "/b.bin"));
    EXPECT_EQ(differs.failedFiles().size(), 1U);
    EXPECT_EQ(entry(differs, "b.bin").destinations[1], "failed");

    // The card cannot be read: the copy that was not to be written is as good as it was, and is read back as such.
    plan.tasks[1].known->xxh64 = first.files[1].xxh64;
    const std::string hidden = temp / "hidden";
    IO::rename(card() + "/b.bin", hidden);
    const OffloadReport unread = run(plan);
    EXPECT_EQ(entry(unread, "b.bin").destinations, (std::vector<std::string>{"verified", "failed"}));
    EXPECT_THAT(error(unread, "b.bin", 1), ::testing::StartsWith("source: open "));
    IO::rename(hidden, card() + "/b.bin");

    // A record with other blocks tells too little: the card is read again, nothing is written.
    FileTree::write(dest(1) + "/b.bin", FileTree::read(card() + "/b.bin"));
    for (FileTask& task : plan.tasks) {
        task.write.clear();
        task.known->blockSize = 8192;
    }
    plan.tasks[1].known->xxh64 = first.files[1].xxh64;
    expectWhole(run(plan));
    EXPECT_EQ(engine->snapshot().readBytes, first.totalBytes);
}

TEST_F(ResumeTest, HashOnlyFilesAreReadBackAgainstTheCard) {
    run();
    OffloadPlan plan = resumePlan();
    plan.mode = PlanMode::repair;
    plan.generation = 2;
    plan.resuming = false;
    plan.tasks.assign(3, {{}, {}, true, {}});
    FileTree::flipBit(dest(1) + "/c.bin", 2999);
    const OffloadReport report = run(plan);
    EXPECT_EQ(report.kind, "repair");
    EXPECT_EQ(report.failedFiles().size(), 1U);
    EXPECT_THAT(error(report, "c.bin", 1), ::testing::StartsWith("HASH MISMATCH: dest "));
    EXPECT_EQ(fileLines(dest(0)).size(), 3U) << "no line for what was only read";

    // The repair: the bad copy is moved aside at the last moment, and the file comes anew from the card.
    plan.tasks[2] = {{false, true}, {}, false, {}};
    prepareEngine = [](OffloadEngine& e) {
        e.setBeforeRename([](std::size_t, std::size_t, const std::string& path) { IO::rename(path, path + ".bad"); });
    };
    expectWhole(run(plan));
    EXPECT_TRUE(IO::exists(dest(1) + "/c.bin.bad"));
    EXPECT_FALSE(IO::exists(dest(0) + "/c.bin.bad"));
}

TEST_F(ResumeTest, AnAppendClearsUpAfterItsLikeAndGoesThroughNoLink) {
    run();
    OffloadPlan plan = *engine->plan();
    plan.fixedCardPaths = plan.cardPaths();
    plan.mode = PlanMode::append;
    plan.generation = 2;
    put("new/d.bin", 100);
    plan.scan.files = {{"new/d.bin", 100, IO::stat(card() + "/new/d.bin").modified}};
    const std::string cutOff = "/.velmora-7-0-0123456789abcdef.tmp";
    const std::string elsewhere = temp / "elsewhere";
    for (const std::string& path : {dest(0) + "/_REPORT" + cutOff, dest(0) + "/_REPORT" + cutOff + "x",
                                    dest(0) + "/A" + cutOff, elsewhere + cutOff})
        FileTree::write(path, "half");
    std::filesystem::create_directory_symlink(elsewhere, dest(0) + "/new");
    std::filesystem::create_directory_symlink(elsewhere, dest(0) + "/ascmhl");
    const OffloadReport report = run(plan);
    EXPECT_EQ(IO::list(elsewhere).size(), 1U);
    EXPECT_EQ(report.files[0].destinations, (std::vector<std::string>{"failed", "verified"}));
    EXPECT_FALSE(IO::exists(dest(0) + "/_REPORT" + cutOff));
    EXPECT_TRUE(IO::exists(dest(0) + "/_REPORT" + cutOff + "x") && IO::exists(dest(0) + "/A" + cutOff));
}

} // namespace velmora::test
