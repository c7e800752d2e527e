#include "engine/CopyFixture.h"

#include "blocks/CacheProbe.h"
#include "blocks/HashStreams.h"
#include "engine/DestWriter.h"
#include "engine/SourceHasher.h"

#include <fmt/format.h>

namespace velmora::test {

namespace {

struct Blocks {
    std::int64_t block;
    std::int64_t buffers;
    std::int64_t threshold; // for a flush of its own
};

class CopySizes : public CopyTest, public ::testing::WithParamInterface<Blocks> {};

} // namespace

// Every size around the edges, in one tree: byte-equal files with equal times, empty folders, no temporary names, and
// records that say what is there.
TEST_P(CopySizes, LeaveTheSameTreeAndTrueRecords) {
    const Blocks& p = GetParam();
    options.chunkSize = p.block;
    options.bufferCount = p.buffers;
    options.fullSyncThreshold = p.threshold;
    options.checkpointBlocks = 3;
    const auto block = static_cast<std::size_t>(p.block);
    std::vector<FileTree::File> files{{"empty folder/", 0}, {"A/deep/er/é ü 🎬 & <\"'>.mov", 77}};
    std::vector<std::size_t> sizes{0, 1, 4095, 4096, block + 1};
    if (block <= std::size_t{16} << 20)
        sizes.insert(sizes.end(), {block - 1, block});
    if (block <= std::size_t{1} << 20)
        sizes.push_back(7 * block + 13);
    for (const std::size_t size : sizes)
        files.push_back({fmt::format("DCIM/{}.bin", size), size});
    FileTree::make(card(), files);
    FileTree::write(card() + "/before1970.bin", "old", -1'000'000);

    const OffloadReport report = run();

    EXPECT_TRUE(allVerified(report));
    EXPECT_EQ(report.hashAlgorithms, (std::vector<std::string>{"xxh64", "xxh128"}));
    EXPECT_EQ(engine->snapshot().phase, ProgressSnapshot::Phase::done);
    EXPECT_EQ(engine->snapshot().readBytes, report.totalBytes);
    for (std::size_t d = 0; d < 2; ++d) {
        EXPECT_TRUE(destTree(d) == cardTree());
        const auto records = fileLines(dest(d));
        EXPECT_EQ(records.size(), report.files.size());
        for (const ManifestRecord& record : records) {
            const std::string bytes = FileTree::read(card() + "/" + record.path);
            XXH64Stream whole;
            whole.update(bytes.data(), bytes.size());
            EXPECT_EQ(record.xxh64Value(), whole.digest()) << record.path;
            EXPECT_EQ(entry(report, record.path).xxh64, record.xxh64);
            XXH128Stream second;
            second.update(bytes.data(), bytes.size());
            EXPECT_EQ(entry(report, record.path).xxh128, second.hex());
            std::vector<std::uint64_t> blocks;
            for (std::size_t at = 0; at < bytes.size(); at += block)
                blocks.push_back(blockHash(bytes.data() + at, std::min(block, bytes.size() - at)));
            EXPECT_EQ(record.blockValues(), blocks) << record.path;
            EXPECT_EQ(IO::stat(dest(d) + "/" + record.path).modified, IO::stat(card() + "/" + record.path).modified);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Copy, CopySizes,
                         ::testing::Values(Blocks{4096, 2, 1 << 28}, Blocks{8192, 3, 5000}, Blocks{1 << 20, 2, 1},
                                           Blocks{16 << 20, 2, 1 << 25}, Blocks{64 << 20, 2, 1 << 28}));

// Names of the card that look like this program's own must come through, or fail loudly; never take another file down,
// nor one that appears meanwhile.
TEST_F(CopyTest, NeverReplacesWhatIsNotOfItsMaking) {
    const std::string longName = std::string(250, 'n') + ".bin";
    for (const std::string& path : {std::string(".A.MOV.offload-part"), std::string("A.MOV"), std::string("b.bin"),
                                    std::string(".offload-flush/in it"), std::string(".offload-flush-2"), longName})
        put(path, 9000);
    options.beforeFileCopy = [&](std::int64_t file) {
        if (file == 0)
            FileTree::write(engine->plan()->cardPaths()[0] + "/b.bin", "foreign");
    };
    const OffloadReport report = run();
    EXPECT_EQ(error(report, "b.bin", 0), "file appeared meanwhile: " + dest(0) + "/b.bin");
    EXPECT_EQ(error(report, "A.MOV", 0), "the temporary copy name .A.MOV.offload-part is another file of the card");
    EXPECT_EQ(entry(report, "b.bin").destinations, (std::vector<std::string>{"failed", "verified"}));
    EXPECT_EQ(report.failedFiles().size(), 2U);
    EXPECT_TRUE(engine->unflushed().empty());
    auto expected = cardTree();
    expected["b.bin"] = "foreign";
    expected.erase("A.MOV");
    EXPECT_TRUE(destTree(0) == expected);
    EXPECT_EQ(fileLines(dest(0)).size(), 4U);
}

TEST_F(CopyTest, ADestinationThatTakesNoFolderLosesAllAndTheOtherStaysWhole) {
    put("A/0.bin", 20000);
    put("1.bin", 100);
    const OffloadPlan plan = prepare();
    std::filesystem::remove(roots[0]);
    FileTree::write(roots[0], "no folder");
    const OffloadReport report = run(plan);
    EXPECT_EQ(report.destinations[0].filesFailed, 2);
    EXPECT_EQ(report.destinations[1].filesOK, 2);
    EXPECT_FALSE(allVerified(report));
    EXPECT_EQ(fileLines(dest(1)).size(), 2U);
    for (const auto* file : report.failedFiles())
        EXPECT_TRUE(file->errors[0] && !file->errors[1] && !file->sourceError) << file->path;
}

// Whoever may not work in the folders, or has no memory to do it with, leaves none behind.
TEST_F(CopyTest, ARunThatCannotBeginGivesItsFoldersBack) {
    put("A/b/0.bin", 20000);
    bool claimed = false;
    prepareEngine = [&](OffloadEngine& e) {
        e.setAfterClaim([&](const OffloadPlan& plan) {
            claimed = IO::isFolder(plan.cardPaths()[1]);
            if (options.bufferCount == 4)
                throw IOError("open", "lock", EROFS);
        });
    };
    for (const std::int64_t buffers : {std::int64_t{4}, std::int64_t{1} << 60}) {
        const OffloadPlan plan = prepare();
        options.bufferCount = buffers;
        EXPECT_THROW(run(plan), std::runtime_error);
        EXPECT_TRUE(claimed && engine->plan() == nullptr);
        for (const std::string& root : roots)
            EXPECT_TRUE(IO::list(root).empty()) << "no card folder, no date folder";
    }
}

// Memory that fails between the reader and a disk: what is not what was read gets no final name.
TEST_F(CopyTest, NothingWrongIsGivenAFinalName) {
    const std::vector<SourceFile> files{{"small", 4096, {}}, {"flushed alone", 8192, {}}};
    options.fullSyncThreshold = 8192;
    const NameClashes clashes;
    const SourceClock clock;
    BufferPool pool(8192, 2);
    SourceHasher hasher(8192, 2, {});
    DestWriter writer({.cardPath = roots[0],
                       .topFolder = roots[0],
                       .options = &options,
                       .files = &files,
                       .clashes = &clashes,
                       .hasher = &hasher,
                       .clock = &clock,
                       .beforeRename = {},
                       .log = {}});
    for (std::size_t file = 0; file < 2; ++file) {
        Chunk& read = pool.take();
        Chunk& torn = pool.take();
        torn.memory()[7] = read.memory()[7] ^ std::byte{1};
        for (Chunk* chunk : {&read, &torn})
            chunk->set(0, static_cast<std::size_t>(files[file].size));
        hasher.whole(file, &read);
        writer.whole(file, &torn);
        writer.drain();
        EXPECT_THAT(writer.results()[file].error.value_or(""), ::testing::StartsWith("HASH MISMATCH: block 0 dest "));
    }
    EXPECT_TRUE(IO::list(roots[0]).empty());
}

TEST_F(CopyTest, SourceTroubleFailsTheFileEverywhereAndNothingElse) {
    for (int i = 1; i <= 6; ++i)
        put(fmt::format("{}.bin", i), 3 * 4096);
    put("small.bin", 100);
    const OffloadPlan plan = prepare();
    const auto path = [&](const std::string& name) { return card() + "/" + name; };
    std::filesystem::remove(path("1.bin"));
    std::filesystem::resize_file(path("2.bin"), 5000);
    FileTree::write(path("3.bin"), std::string(3 * 4096, 'x'), 1'700'000'000);
    std::filesystem::remove(path("4.bin"));
    std::filesystem::create_symlink("5.bin", path("4.bin"));
    std::filesystem::resize_file(path("6.bin"), 4 * 4096);
    std::filesystem::resize_file(path("small.bin"), 101);
    const OffloadReport report = run(plan);
    for (const auto& [name, why] :
         std::map<std::string, std::string>{{"1.bin", "open " + path("1.bin")},
                                            {"2.bin", "source size changed during copy (12288 != 5000)"},
                                            {"3.bin", "source changed during copy (modified"},
                                            {"4.bin", "errno 40"}, // a link is not followed
                                            {"6.bin", "source size changed during copy (12288 != 16384)"},
                                            {"small.bin", "source size changed during copy (100 != 101)"}})
        EXPECT_THAT(entry(report, name).sourceError.value_or(""), ::testing::HasSubstr(why));
    EXPECT_EQ(entry(report, "5.bin").destinations, (std::vector<std::string>{"verified", "verified"}));
    EXPECT_EQ(report.failedFiles().size(), 6U);
    for (std::size_t d = 0; d < 2; ++d)
        EXPECT_EQ(destTree(d).size(), 1U) << "5.bin; no part file remains";
}

TEST_F(CopyTest, CancelKeepsWhatIsCompleteAndNoPartFile) {
    for (int i = 0; i < 4; ++i)
        put(fmt::format("{}.bin", i), 10 * 4096);
    prepareEngine = [&](OffloadEngine& e) {
        e.options().afterChunkRead = [&](std::int64_t blocks) {
            if (blocks == 25)
                e.cancel();
        };
    };
    const OffloadReport report = run();
    EXPECT_FALSE(report.verified);
    EXPECT_EQ(report.failedFiles().size(), 2U);
    EXPECT_EQ(entry(report, "1.bin").destinations, (std::vector<std::string>{"written", "written"}));
    EXPECT_EQ(entry(report, "2.bin").sourceError, "cancelled");
    EXPECT_EQ(entry(report, "3.bin").sourceError, "cancelled");
    for (std::size_t d = 0; d < 2; ++d)
        EXPECT_EQ(destTree(d).size() + fileLines(dest(d)).size(), 2U + 2U);
}

TEST_F(CopyTest, ReaderStopsWhenTheBuffersAreOutAndGoesOnWithTheDisk) {
    options.bufferCount = 2;
    put("a.bin", 8 * 4096);
    std::atomic<std::int64_t> read{0};
    std::atomic<bool> stalled{true};
    std::int64_t readWhileStalled = 0;
    prepareEngine = [&](OffloadEngine& e) {
        e.options().afterChunkRead = [&](std::int64_t blocks) { read = blocks; };
        e.options().checkpointBlocks = 1;
        e.setBeforeRename([&](std::size_t, std::size_t file, const std::string&) {
            if (file != 0)
                return;
            while (stalled)
                std::this_thread::yield();
        });
    };
    put("b.bin", 8 * 4096); // behind a.bin, whose rename is held up on both disks
    std::thread watch([&] {
        for (std::int64_t last = -1; last != read || last < 9;) {
            last = read;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        readWhileStalled = read;
        stalled = false;
    });
    const OffloadReport report = run();
    watch.join();
    EXPECT_EQ(readWhileStalled, 8 + 2);
    EXPECT_TRUE(allVerified(report));
}

TEST_F(CopyTest, PauseHoldsBetweenFilesAndNoticesAnotherCard) {
    struct Case {
        std::vector<std::optional<std::string>> identities; // when met, held, held after the pause, twice at the end
        std::size_t failed;
    };
    const Case cases[] = {
        {{"X", "X", "X", "X", "X"}, 0},
        {{"X", "X", std::nullopt, "Y", "X", "X", "X"}, 0}, // a volume that needs a moment
        {{"X", "X", "Y", "Y", "Y"}, 2},
        {{"X", "X", std::nullopt, std::nullopt, std::nullopt}, 2},
        {{std::nullopt}, 0}, // nothing to compare with
    };
    for (int i = 0; i < 4; ++i)
        put(fmt::format("{}.bin", i), 10000);
    for (const Case& c : cases) {
        std::size_t asked = 0;
        prepareEngine = [&](OffloadEngine& e) {
            e.options().cardIdentity = [&](const std::string&) { return c.identities.at(asked++); };
            e.options().beforeFileCopy = [&e](std::int64_t file) {
                if (file != 2)
                    return;
                e.pauses().pause();
                std::thread([&e] {
                    while (!e.pauses().isHeld())
                        std::this_thread::yield();
                    EXPECT_EQ(e.snapshot().writtenBytes, (std::vector<std::int64_t>{20000, 20000}));
                    EXPECT_EQ(fileLines(e.plan()->cardPaths()[1]).size(), 2U) << "the power may go now";
                    e.pauses().resume();
                }).detach();
            };
        };
        const OffloadReport report = run();
        EXPECT_EQ(report.failedFiles().size(), c.failed);
        EXPECT_EQ(engine->cardChanged(), c.failed > 0);
        EXPECT_GT(report.copyPausedSeconds.value_or(0), 0);
        if (c.failed > 0) {
            EXPECT_EQ(entry(report, "3.bin").sourceError, "card changed while paused");
            EXPECT_EQ(entry(report, "3.bin").destinations, (std::vector<std::string>{"failed", "failed"}));
            EXPECT_EQ(error(report, "3.bin", 1), "source: card changed while paused");
        }
        EXPECT_EQ(asked, c.identities.size());
    }
}

// What is mounted at the card's path, or moved there, while it is read.
TEST_F(CopyTest, ReadsNothingOfAnotherCardThatCameInItsPlace) {
    for (int i = 0; i < 3; ++i)
        put(fmt::format("{}.bin", i), i == 1 ? 10000 : 3000);
    const auto original = cardTree();
    for (const std::int64_t atBlock : {1, 2}) {
        prepareEngine = [&](OffloadEngine& e) {
            e.options().afterChunkRead = [=, this](std::int64_t blocks) {
                if (blocks != atBlock)
                    return;
                std::filesystem::rename(card(), temp / "away");
                for (int i = 0; i < 3; ++i)
                    put(fmt::format("{}.bin", i), i == 1 ? 10000 : 3000, 9);
            };
        };
        EXPECT_TRUE(run().failedFiles().empty());
        EXPECT_EQ(destTree(0), original);
        EXPECT_TRUE(engine->cardChanged());
        std::filesystem::remove_all(card());
        std::filesystem::rename(temp / "away", card());
    }

    // A pause that was asked for before the run began is held ahead of the first file.
    std::atomic<bool> swapped = false;
    options.cardIdentity = [&](const std::string&) { return std::optional<std::string>(swapped ? "B" : "A"); };
    prepareEngine = [&](OffloadEngine& e) {
        e.pauses().pause();
        std::thread([&] {
            while (!e.pauses().isHeld())
                std::this_thread::yield();
            swapped = true;
            e.pauses().resume();
        }).detach();
    };
    EXPECT_EQ(run().failedFiles().size(), 3U);
    EXPECT_TRUE(engine->cardChanged());
}

// A pause that is asked for while the last file is read is held by the read-back, or by nobody.
TEST_F(CopyTest, NoticesAnotherCardAlsoWhenEverythingWasRead) {
    put("a.bin", 9000);
    for (const bool readBack : {false, true}) {
        std::atomic<bool> swapped = false;
        options.cardIdentity = [&](const std::string&) { return std::optional<std::string>(swapped ? "B" : "A"); };
        options.verify = readBack;
        prepareEngine = [&](OffloadEngine& e) {
            const auto swap = [&] {
                e.pauses().pause();
                swapped = true;
                e.pauses().resume();
            };
            if (readBack)
                e.options().afterVerifyChunk = swap;
            else
                e.options().afterChunkRead = [=](std::int64_t) { swap(); };
        };
        EXPECT_TRUE(run().failedFiles().empty());
        EXPECT_TRUE(engine->cardChanged());
    }
}

// What went through the cache leaves it also when nobody reads it back.
TEST_F(CopyTest, NothingStaysInMemoryWithoutAReadBack) {
    put("small.bin", 9000);
    put("large.bin", 3 << 20);
    options.verify = false;
    options.chunkSize = 1 << 20;
    run();
    for (const char* name : {"/small.bin", "/large.bin"})
        EXPECT_EQ(CacheProbe::residentPages(dest(1) + name)->resident, 0) << name;
}

TEST_F(CopyTest, AReportWhoseVerificationComesLaterIsNoVerdict) {
    put("a.bin", 9000);
    options.deferVerify = true;
    const OffloadReport report = run();
    EXPECT_EQ(report.verifyPending, true);
    EXPECT_FALSE(report.verified);
    EXPECT_EQ(engine->fileBlocks().at(0).size(), 3U);
    EXPECT_GT(engine->writeRates().at(0), 0);
}

// A bit that flips on a disk between copy and read-back, in the first, a middle and the last block. When it is wrong on
// both disks, the card is asked.
TEST_F(CopyTest, ReadBackFindsAFlippedBitAndNamesItsBlock) {
    for (const std::int64_t offset : {std::int64_t{0}, std::int64_t{5 * 4096 + 77}, std::int64_t{9 * 4096 + 99}}) {
        const std::size_t disks = offset == 0 ? 2 : 1;
        put("a.bin", 9 * 4096 + 100);
        prepareEngine = [=](OffloadEngine& e) {
            e.setBeforeRename([=](std::size_t d, std::size_t, const std::string& path) {
                if (d < disks)
                    FileTree::flipBit(path.substr(0, path.rfind('/')) + "/.a.bin.offload-part", offset);
            });
        };
        const OffloadReport report = run();
        EXPECT_THAT(error(report, "a.bin", 0),
                    ::testing::AllOf(::testing::StartsWith("HASH MISMATCH: dest "),
                                     ::testing::EndsWith(" != source " + *entry(report, "a.bin").xxh64)));
        EXPECT_EQ(entry(report, "a.bin").destinations[1], disks == 2 ? "failed" : "verified");
        EXPECT_FALSE(allVerified(report));
        EXPECT_EQ(entry(report, "a.bin").xxh128.has_value(), disks == 1);
        ASSERT_EQ(report.verifyNotes.value().size(), disks == 2 ? 3U : 1U);
        EXPECT_THAT(
            report.verifyNotes->back(),
            ::testing::AllOf(::testing::StartsWith("a.bin on "),
                             ::testing::EndsWith(fmt::format(": block {} differs from the source.", offset / 4096))));
        if (disks == 2) {
            EXPECT_THAT(report.verifyNotes->at(0),
                        ::testing::AllOf(::testing::StartsWith("a.bin: block 0 mismatches the same way on "),
                                         ::testing::HasSubstr("the card now gives the recorded data")));
        }
    }
}

// Whatever breaks a read-back off, no buffer is lost, the run ends with its report, and nothing counts as verified.
TEST_F(CopyTest, AReadBackThatBreaksOffFailsItsFiles) {
    options.bufferCount = 2;
    put("a.bin", 9000);
    put("b.bin", 9000);
    options.afterVerifyChunk = [] { throw std::bad_alloc(); };
    const OffloadReport report = run();
    EXPECT_EQ(report.failedFiles().size(), 2U);
    EXPECT_THAT(error(report, "b.bin", 1), ::testing::StartsWith("verify: "));
}

} // namespace velmora::test
