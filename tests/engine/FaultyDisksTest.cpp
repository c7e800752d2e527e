#include "engine/CopyFixture.h"
#include "support/FaultDisk.h"

namespace velmora::test {

namespace {

class FaultyDisks : public CopyTest {
protected:
    void SetUp() override {
        VELMORA_NEEDS(FaultDisk::unavailable());
        disk.emplace();
        for (const char* path : {"A/1.bin", "A/2.bin", "B/3.bin"})
            put(path, 5 * 4096 + 10);
        put("B/small.bin", 100);
    }
    std::optional<FaultDisk> disk;
};

} // namespace

TEST_F(FaultyDisks, ASourceErrorThatClearsLeavesNoTraceAndOneThatStaysFailsItsFile) {
    for (const std::int64_t times : {3, 4}) {
        disk.emplace();
        std::filesystem::copy(card(), disk->root(), std::filesystem::copy_options::recursive);
        disk->fail(EIO, {.ops = "read", .skip = 1, .times = times, .pattern = "*/2.bin"});
        const OffloadReport report = run(OffloadEngine(options).prepare({disk->root(), roots, "C", "2026-03-14"}));
        EXPECT_EQ(disk->hits(), times);
        EXPECT_EQ(allVerified(report), times == 3);
        EXPECT_EQ(report.failedFiles().size(), times == 3 ? 0U : 1U);
        const std::string error = IOError("read", disk->root() + "/A/2.bin", EIO).what();
        EXPECT_EQ(entry(report, "A/2.bin").sourceError.value_or(""), times == 3 ? "" : error + " (after 3 retries)");
    }
}

// Every way in which a destination can fail costs its own files and nothing else.
TEST_F(FaultyDisks, ADestinationThatFailsLosesItsOwnFilesOnly) {
    struct Case {
        const char* name;
        std::function<void()> harm;
        std::set<std::string> lost;
        std::int64_t threshold = 1 << 28;
        bool safe = lost.empty();
    };
    const std::set<std::string> all{"A/1.bin", "A/2.bin", "B/3.bin", "B/small.bin"};
    const Case cases[] = {
        {"write", [&] { disk->fail(EIO, {.ops = "write", .skip = 2, .pattern = "*/.2.bin.*"}); }, {"A/2.bin"}},
        {"short write", [&] { disk->cutShort(512, {.ops = "write", .pattern = "*/.2.bin.*"}); }, {}},
        {"open", [&] { disk->fail(EACCES, {.ops = "create", .pattern = "*/.3.bin.*"}); }, {"B/3.bin"}},
        {"fsync", [&] { disk->fail(EIO, {.ops = "fsync", .pattern = "*/.1.bin.*"}); }, {"A/1.bin"}, 4096},
        {"rename", [&] { disk->fail(EIO, {.ops = "rename", .pattern = "*/.3.bin.*"}); }, {"B/3.bin"}},
        {"read-back", [&] { disk->fail(EIO, {.ops = "read", .times = 0, .pattern = "*/3.bin"}); }, {"B/3.bin"}},
        {"bit flipped on reading", [&] { disk->flip({.ops = "read", .times = 0, .pattern = "*/2.bin"}); }, {"A/2.bin"}},
        {"bit flipped once", [&] { disk->flip({.ops = "read", .pattern = "*/2.bin"}); }, {"A/2.bin"}},
        {"bit flipped on writing", [&] { disk->flip({.ops = "write", .pattern = "*/.1.bin.*"}); }, {"A/1.bin"}},
        {"flush file", [&] { disk->fail(EIO, {.ops = "fsync", .pattern = "*/.offload-flush"}); }, {}, 1 << 28, false},
        {"no room for the flush file",
         [&] { disk->fail(ENOSPC, {.ops = "create", .pattern = "*/.offload-flush"}); },
         {}},
        {"no room found out too late",
         [&] { disk->fail(ENOSPC, {.ops = "fsync", .pattern = "*/.offload-flush"}); },
         {},
         1 << 28,
         false},
        {"device flush", [&] { disk->fail(EIO, {.ops = "syncfs"}); }, {}, 1 << 28, false},
        {"device flush that lost a file",
         [&] {
             disk->fail(EIO, {.ops = "syncfs"});
             disk->flip({.ops = "read", .times = 0, .pattern = "*/2.bin"});
         },
         {"A/2.bin"}},
        {"device flush with nothing waiting", [&] { disk->fail(EIO, {.ops = "syncfs"}); }, {}, 1, false},
        {"names not flushed", [&] { disk->fail(EIO, {.ops = "fsyncdir", .pattern = "*/A"}); }, {"A/1.bin"}, 4096},
        {"full", [&] { disk->fillUp(3 * 4096); }, all},
        {"read-only",
         [&] { disk->turnReadOnly({.ops = "write", .pattern = "*/.3.bin.*"}); },
         {"B/3.bin", "B/small.bin"}},
        {"pulled", [&] { disk->vanish({.ops = "write", .pattern = "*/.3.bin.*"}); }, all},
    };
    roots[0] = disk->root();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        disk.emplace();
        roots[0] = disk->root();
        options.fullSyncThreshold = c.threshold;
        OffloadPlan plan = prepare();
        c.harm();
        const OffloadReport report = run(plan);
        EXPECT_GT(disk->hits(), 0);
        std::set<std::string> lost;
        for (const auto& file : report.files) {
            EXPECT_EQ(file.destinations[1], "verified");
            if (file.destinations[0] != "verified")
                lost.insert(file.path);
            else // what it claims to hold it holds
                EXPECT_EQ(FileTree::read(disk->medium() + dest(0).substr(disk->root().size()) + "/" + file.path),
                          FileTree::read(card() + "/" + file.path));
        }
        EXPECT_EQ(lost, c.lost);
        EXPECT_EQ(allVerified(report), c.safe);
        if (std::string_view(c.name) == "bit flipped once") {
            EXPECT_THAT(report.verifyNotes.value_or(std::vector<std::string>{}),
                        ::testing::ElementsAre(::testing::AllOf(
                            ::testing::StartsWith("Unstable read: A/2.bin on "),
                            ::testing::EndsWith(
                                " (block 0) gave different data in one read — the next read matched the card."))));
        }
        if (std::string_view(c.name) == "device flush") {
            EXPECT_TRUE(fileLines(disk->medium() + "/2026-03-14/C").empty());
        }
        if (std::string_view(c.name).starts_with("device flush")) {
            EXPECT_EQ(engine->unflushed(), std::vector<std::string>{dest(0)});
            EXPECT_THAT(engine->reportProblems().at(0), ::testing::StartsWith(dest(0) + ": the flush of the disk"));
        }
    }
}

} // namespace velmora::test
