#include "engine/HeldFolders.h"
#include "disks/SpacePlanner.h"
#include "engine/CopyFixture.h"
#include "support/LoopImage.h"

#include <mutex>
#include <utility>

namespace velmora {
namespace {

namespace fs = std::filesystem;

class HeldFoldersTest : public test::CopyTest {
protected:
    // The disk goes, and its mount point stays.
    void pull(std::size_t d) {
        fs::rename(roots[d], temp / "pulled");
        IO::mkdirs(roots[d]);
    }
    std::map<std::string, std::string> bare(std::size_t d) { return test::FileTree::contents(roots[d]); }
};

TEST_F(HeldFoldersTest, ADiskThatGoesBeforeTheFirstFolderIsMadeEndsTheRun) {
    put("clip.mov", 100);
    engine = std::make_unique<OffloadEngine>(options);
    OffloadPlan plan = engine->prepare({card(), roots, "C", "2026-03-14"});
    pull(1);
    EXPECT_THROW(engine->run(std::move(plan)), OffloadError);
    EXPECT_TRUE(bare(0).empty() && bare(1).empty());
}

TEST_F(HeldFoldersTest, WhatIsWrittenOrReadAfterADiskWentFails) {
    for (int i = 0; i < 3; ++i)
        put("clip" + std::to_string(i) + ".mov", 9000);
    for (const bool late : {false, true}) {
        SCOPED_TRACE(late);
        bool gone = false;
        std::mutex mutex; // both disks are read back at once
        const auto pullOnce = [&] {
            const std::lock_guard lock(mutex);
            if (!std::exchange(gone, true))
                pull(1);
        };
        options.beforeFileCopy = [&](std::int64_t file) { file == 1 && !late ? pullOnce() : void(); };
        options.afterVerifyChunk = [&] { late ? pullOnce() : void(); };
        const OffloadReport report = run();
        EXPECT_TRUE(gone);
        EXPECT_TRUE(bare(1).empty());
        EXPECT_THAT(error(report, "clip2.mov", 1), testing::HasSubstr("is not there any more"));
        EXPECT_EQ(error(report, "clip2.mov", 0), "");
        EXPECT_EQ(engine->held()->problems().size(), 1U);
        for (const std::string& root : roots)
            fs::remove_all(root);
        fs::remove_all(temp / "pulled");
        for (const std::string& root : roots)
            IO::mkdirs(root);
    }
}

// Each subvolume has a device number of its own.
TEST_F(HeldFoldersTest, SubvolumesAreOneVolume) {
    using enum test::LoopImage::Kind;
    VELMORA_NEEDS(test::LoopImage::unavailable(btrfs));
    const test::LoopImage disk(btrfs);
    for (const char* name : {"card", "backup"})
        test::shell("btrfs subvolume create '" + (disk / name) + "'");
    const HeldFolders held({disk / "backup"});
    EXPECT_FALSE(held.anyOffVolume(SpacePlanner::volumeKey(disk / "card")));
    EXPECT_TRUE(held.anyOffVolume(SpacePlanner::volumeKey(temp.path())));
    EXPECT_FALSE(HeldFolders({disk / "none"}).anyOffVolume("")) << "what is not there is no other volume";
}

} // namespace
} // namespace velmora
