#include "engine/CopyFixture.h"
#include "engine/DestWriter.h"

#include "blocks/HashStreams.h"
#include "support/FaultDisk.h"
#include "support/Loops.h"

#include <cerrno>
#include <fmt/format.h>

namespace velmora::test {

namespace {

class FaultyDisks : public CopyTest {
protected:
    void SetUp() override {
        if (const auto why = FaultDisk::unavailable())
            GTEST_SKIP() << *why;
        disk.emplace();
        for (const char* path : {"A/1.bin", "A/2.bin", "B/3.bin"})
            put(path, 5 * 4096 + 10);
        put("B/small.bin", 100);
    }
    std::optional<FaultDisk> disk;
};

} // namespace

TEST_F(FaultyDisks, ASourceErrorThatClearsLeavesNoTraceAndOneThatStaysFailsItsFile) {
    for (const std::int64_t times : {2, 3, 4}) {
        disk.emplace();
        for (const auto& [path, content] : cardTree())
            if (!path.ends_with('/'))
                FileTree::write(disk->root() + "/" + path, content);
        disk->fail(EIO, {.ops = "read", .skip = 1, .times = times, .pattern = "*/2.bin"});
        OffloadPlan plan = OffloadEngine(options).prepare({disk->root(), roots, "C", "2026-03-14"});
        const OffloadReport report = run(plan);
        EXPECT_EQ(disk->hits(), times);
        disk->clear();
        const bool clears = times < 4;
        EXPECT_EQ(report.safeToFormat(), clears) << times;
        EXPECT_EQ(report.failedFiles().size(), clears ? 0U : 1U);
        if (!clears) {
            EXPECT_EQ(entry(report, "A/2.bin").sourceError,
                      IOError("read", disk->root() + "/A/2.bin", EIO).what() + std::string(" (after 3 retries)"));
        }
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
        {"bit flipped once", [&] { disk->flip({.ops = "read", .pattern = "*/2.bin"}); }, {}},
        {"bit flipped on writing", [&] { disk->flip({.ops = "write", .pattern = "*/.1.bin.*"}); }, {"A/1.bin"}},
        {"flush file", [&] { disk->fail(EIO, {.ops = "fsync", .pattern = "*/.offload-flush"}); }, all},
        {"device flush", [&] { disk->fail(EIO, {.ops = "syncfs"}); }, all},
        {"device flush behind large files", [&] { disk->fail(EIO, {.ops = "syncfs"}); }, {"B/small.bin"}, 4096},
        {"device flush with nothing waiting", [&] { disk->fail(EIO, {.ops = "syncfs"}); }, {}, 1, false},
        {"names not flushed", [&] { disk->fail(EIO, {.ops = "fsyncdir", .pattern = "*/A"}); }, {"A/1.bin"}, 4096},
        {"read-only", [&] { disk->turnReadOnly({.ops = "write", .pattern = "*/.3.bin.*"}); }, all},
        {"pulled", [&] { disk->vanish({.ops = "write", .pattern = "*/.3.bin.*"}); }, all},
    };
    roots[0] = disk->root();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        disk.emplace();
        roots[0] = disk->root();
        options.fullSyncThreshold = c.threshold;
        OffloadPlan plan = OffloadEngine(options).prepare({card(), roots, "C", "2026-03-14"});
        c.harm();
        const OffloadReport report = run(plan);
        EXPECT_GT(disk->hits(), 0);
        std::set<std::string> lost;
        for (const auto* file : report.failedFiles()) {
            lost.insert(file->path);
            EXPECT_EQ(file->destinations[1], "verified");
        }
        EXPECT_EQ(lost, c.lost);
        EXPECT_EQ(report.safeToFormat(), c.safe);
        if (std::string_view(c.name) == "bit flipped once") {
            EXPECT_THAT(report.verifyNotes.value_or(std::vector<std::string>{}),
                        ::testing::Contains(::testing::StartsWith("Unstable read: A/2.bin on ")));
        }
        if (std::string_view(c.name) == "device flush") {
            EXPECT_TRUE(lines(disk->medium() + "/2026-03-14/C", "file").empty());
        }
    }
}

// Whatever the moment at which the process dies or the power goes: a file that a line of the manifest calls complete
// is there with the right bytes, and so is every block that a checkpoint names.
TEST_F(FaultyDisks, NoLinePromisesWhatACrashTakesBack) {
    options.checkpointBlocks = 2;
    options.fullSyncThreshold = 5 * 4096;
    const auto content = cardTree();
    DurableOperation copy;
    copy.prepare = [](const std::string&) {};
    copy.work = [&](const std::string& root) {
        OffloadOptions quiet = options;
        quiet.verify = false;
        OffloadPlan plan = OffloadEngine(quiet).prepare({card(), {root}, "C", "2026-03-14"});
        OffloadEngine own(quiet);
        Recorder none;
        if (own.run(plan, none).hasFailedFiles())
            throw std::runtime_error("a file failed");
    };
    std::size_t promised = 0;
    const auto check = [&](const std::string& root, bool succeeded) {
        const std::string folder = root + "/2026-03-14/C";
        const auto records = ManifestFile::read(folder);
        const auto files = ManifestFile::files(records, 1);
        promised += files.size();
        for (const auto& [key, record] : files)
            EXPECT_TRUE(FileTree::read(folder + "/" + record.path) == content.at(record.path)) << record.path;
        for (const auto& [key, part] : ManifestFile::parts(records, 1)) {
            if (files.contains(key))
                continue;
            std::string path = folder + "/" + DestWriter::partName(part.path);
            if (!IO::exists(path))
                path = folder + "/" + part.path; // renamed, and not yet called complete
            ASSERT_TRUE(IO::exists(path)) << part.path;
            const std::string bytes = FileTree::read(path);
            for (std::size_t b = 0; b < part.blocks.size(); ++b) {
                const auto at = b * static_cast<std::size_t>(part.blockSize);
                ASSERT_LT(at, bytes.size());
                const std::size_t length = std::min<std::size_t>(4096, bytes.size() - at);
                EXPECT_EQ(blockHash(bytes.data() + at, length), part.blocks[b]) << part.path << " block " << b;
            }
        }
        if (succeeded) {
            EXPECT_EQ(files.size(), 4U);
            EXPECT_TRUE(destTree(folder).contains("A/"));
        }
    };
    EXPECT_GT(crashLoop(copy, {}, check), 10);
    EXPECT_GT(promised, 0U);
}

} // namespace velmora::test
