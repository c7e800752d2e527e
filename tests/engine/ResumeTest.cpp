#include "engine/CopyFixture.h"

#include "base/Text.h"
#include "engine/DestWriter.h"

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
        plan.resume.emplace();
        for (const SourceFile& file : plan.scan.files) {
            const auto part = parts.find(pathKey(file.relPath));
            plan.resume->push_back(part == parts.end() ? std::nullopt : std::optional(part->second));
        }
        return plan;
    }
    void expectWhole(const OffloadReport& report) {
        EXPECT_TRUE(report.safeToFormat());
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
        {"fewer blocks", [](OffloadPlan& plan) { (*plan.resume)[1]->blocks.resize(1); }, 4096},
        {"another block size", [](OffloadPlan& plan) { (*plan.resume)[1]->blockSize = 8192; }, 0},
        {"no blocks", [](OffloadPlan& plan) { (*plan.resume)[1]->blocks.clear(); }, 0},
        {"more blocks than file", [](OffloadPlan& plan) { (*plan.resume)[1]->blocks.resize(11); }, 0},
        {"another hash", [](OffloadPlan& plan) { (*plan.resume)[1]->blocks[5] ^= 1; }, 0},
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

// `known` files are not read; the others are read once, whoever needs them.
TEST_F(ResumeTest, KnownFilesAreAdoptedAndMissingOnesWritten) {
    const OffloadReport first = run();
    OffloadPlan plan = resumePlan();
    plan.resume.reset();
    plan.known.emplace();
    for (const ManifestRecord& record : fileLines(dest(0)))
        plan.known->push_back(record);
    plan.write = {{false, false}, {false, true}, {false, false}};
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
    (*plan.known)[1]->xxh64 = "0123456789abcdef";
    const OffloadReport differs = run(plan);
    EXPECT_THAT(entry(differs, "b.bin").sourceError.value_or(""),
                ::testing::StartsWith("the card has different content than at the backup ("));
    EXPECT_FALSE(IO::exists(dest(1) + "/b.bin"));
    EXPECT_EQ(differs.failedFiles().size(), 1U);

    // A record with other blocks tells too little: the card is read again, nothing is written.
    plan.write.reset();
    FileTree::write(dest(1) + "/b.bin", FileTree::read(card() + "/b.bin"));
    for (auto& known : *plan.known)
        known->blockSize = 8192;
    (*plan.known)[1]->xxh64 = first.files[1].xxh64;
    expectWhole(run(plan));
    EXPECT_EQ(engine->snapshot().readBytes, first.totalBytes);
}

TEST_F(ResumeTest, HashOnlyFilesAreReadBackAgainstTheCard) {
    run();
    OffloadPlan plan = resumePlan();
    plan.mode = PlanMode::repair;
    plan.generation = 2;
    plan.resuming = false;
    plan.resume.reset();
    plan.hashOnly = {true, true, true};
    FileTree::flipBit(dest(1) + "/c.bin", 2999);
    const OffloadReport report = run(plan);
    EXPECT_EQ(report.kind, "repair");
    EXPECT_EQ(report.failedFiles().size(), 1U);
    EXPECT_THAT(error(report, "c.bin", 1), ::testing::StartsWith("HASH MISMATCH: block 0"));
    EXPECT_EQ(fileLines(dest(0)).size(), 3U) << "no line for what was only read";

    // The repair: the bad copy is moved aside at the last moment, and the file comes anew from the card.
    plan.hashOnly = {true, true, false};
    plan.write = {{false, false}, {false, false}, {false, true}};
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
