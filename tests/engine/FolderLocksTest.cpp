#include "engine/FolderLocks.h"

#include "support/CodedRefusal.h"

namespace velmora {
namespace {

class FolderLocksTest : public testing::Test {
protected:
    bool isFree(const std::string& path) { return FileLock::tryLock(Locks::cardFolder(path, locks)).has_value(); }

    test::TempFolder folder;
    std::string locks = folder / "support/locks";
    std::string a = folder / "disk1/2026-11-22/A001";
    std::string b = folder / "disk2/2026-11-22/A001";
};

TEST_F(FolderLocksTest, HoldsAllFoldersOrNone) {
    {
        const FolderLocks held = FolderLocks::acquire({b, a, b, a + "/"}, locks);
        EXPECT_FALSE(isFree(a) || isFree(b));
    }
    for (const auto& [taken, other] : {std::pair(a, b), std::pair(b, a)}) {
        const auto foreign = FileLock::tryLock(Locks::cardFolder(taken, locks));
        ASSERT_TRUE(foreign);
        EXPECT_EQ(test::codedRefusal([&] { FolderLocks::acquire({a, b}, locks); }),
                  "appendBusy: Another job is working with this backup right now — an append, a repair or a verify "
                  "with proxies (" +
                      taken + ") — wait until it finishes.");
        EXPECT_TRUE(isFree(other));
    }
}

TEST_F(FolderLocksTest, MeetsTheLocksOfOtherUsersAndReadsWithoutLockFiles) {
    std::filesystem::create_directories(a);
    std::filesystem::create_directories(b);
    const std::string others = folder / "other user/locks";
    const auto refusal = [&](const std::string& in) {
        return test::codedRefusal([&] { FolderLocks::acquire({a, b}, in); });
    };
    {
        const FolderLocks held = FolderLocks::acquire({b, b + "/"}, locks);
        EXPECT_THAT(refusal(others), testing::StartsWith("appendBusy: "));
        EXPECT_THROW(FolderLocks::forReading(b, others), OffloadError);
    }
    EXPECT_EQ(refusal(others), "passed");
    std::ofstream(folder / "file") << "no folder";
    const std::string none = folder / "file/locks";
    EXPECT_THAT(refusal(none), testing::EndsWith("A001: mkdir " + none + ": Not a directory (errno 20)"));
    const FolderLocks reading = FolderLocks::forReading(a, none);
    EXPECT_THAT(refusal(others), testing::StartsWith("appendBusy: "));
}

TEST_F(FolderLocksTest, KnowsAFolderHoweverItIsWritten) {
    std::filesystem::create_directories(a);
    std::filesystem::create_directory_symlink(folder / "disk1", folder / "link");
    FolderLocks held = FolderLocks::acquire({folder / "link/2026-11-22/./a001/"}, locks);
    EXPECT_FALSE(isFree(a));
    FolderLocks moved = std::move(held);
    held.release();
    EXPECT_FALSE(isFree(a)) << "the lock has moved on";
    moved.release();
    moved.release();
    EXPECT_TRUE(isFree(a));
    const std::string card = Locks::cardFolder("/Volumes/X", "/l");
    EXPECT_EQ(card, "/l/append-5160ebf788d11e89fc2898796c92ea2bdc8766d734870772698dd3f9c69130de.lock");
    EXPECT_EQ(Locks::day("/volumes/x/", "/l"), "/l/day-" + card.substr(10));
    EXPECT_EQ(Locks::history("/Volumes/X", "/l"), "/l/history-" + card.substr(10));
}

} // namespace
} // namespace velmora
