#include "platform/PageCache.h"
#include "support/LoopImage.h"

namespace velmora {
namespace {

using test::TempFolder;
using test::FileTree::write;

TEST(PageCache, CountsWhatIsThereAndNothingMore) {
    const TempFolder folder;
    write(folder / "empty", "");
    EXPECT_EQ(PageCache::residentPages(folder / "empty"), (std::pair<std::int64_t, std::int64_t>(0, 0)));
    EXPECT_TRUE(PageCache::evict(folder / "empty"));
    EXPECT_EQ(PageCache::residentPages(folder / "missing"), std::nullopt);
    EXPECT_FALSE(PageCache::evict(folder / "missing"));

    write(folder / "file", std::string(10 * 4096 + 1, 'x'));
    EXPECT_EQ(PageCache::residentPages(folder / "file"), (std::pair<std::int64_t, std::int64_t>(11, 11)));
    ASSERT_TRUE(PageCache::evict(folder / "file"));
    // One page comes back, and no read-ahead with it.
    const int fd = ::open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    EXPECT_EQ(::pread(fd, &byte, 1, 5 * 4096), 1);
    ::close(fd);
    EXPECT_EQ(PageCache::residentPages(folder / "file"), (std::pair<std::int64_t, std::int64_t>(1, 11)));
}

TEST(PageCache, AFileThatLivesInMemoryStaysThere) {
    VELMORA_NEEDS(test::notRoot());
    const TempFolder folder;
    ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=8m"), 0);
    write(folder / "file", std::string(1 << 20, 'x'));
    EXPECT_TRUE(PageCache::evict(folder / "file"));
    EXPECT_EQ(PageCache::residentPages(folder / "file"), (std::pair<std::int64_t, std::int64_t>(256, 256)));
    ::umount(folder.path().c_str());
}

TEST(PageCache, SeesThroughAnOverlay) {
    VELMORA_NEEDS(test::notRoot());
    const TempFolder folder;
    for (const char* name : {"lower", "upper", "work", "merged"})
        ::mkdir((folder / name).c_str(), 0755);
    const std::string options =
        "lowerdir=" + folder / "lower" + ",upperdir=" + folder / "upper" + ",workdir=" + folder / "work";
    if (::mount("overlay", (folder / "merged").c_str(), "overlay", 0, options.c_str()) != 0)
        GTEST_SKIP() << "this kernel has no overlay file system";
    write(folder / "merged/file", std::string(1 << 20, 'x'));
    EXPECT_EQ(PageCache::residentPages(folder / "merged/file"), (std::pair<std::int64_t, std::int64_t>(256, 256)));
    EXPECT_TRUE(PageCache::evict(folder / "merged/file"));
    EXPECT_EQ(PageCache::residentPages(folder / "merged/file"), (std::pair<std::int64_t, std::int64_t>(0, 256)));
    ::umount((folder / "merged").c_str());
}

TEST(PageCache, DoesNotBelieveWhatAStrangerIsTold) {
    VELMORA_NEEDS(test::notRoot());
    const TempFolder folder;
    ::chmod(folder.path().c_str(), 0755);
    write(folder / "theirs", std::string(1 << 20, 'x'));
    write(folder / "ours", std::string(1 << 20, 'x'));
    ASSERT_TRUE(PageCache::evict(folder / "theirs"));
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(::chown((folder / "ours").c_str(), nobody, nobody), 0);
    ASSERT_EQ(::seteuid(nobody), 0);
    const auto theirs = PageCache::residentPages(folder / "theirs");
    const auto ours = PageCache::residentPages(folder / "ours");
    ASSERT_EQ(::seteuid(0), 0);
    // Older kernels tell everybody the truth here; a wrong "all resident" is what must never come.
    EXPECT_TRUE(!theirs || theirs->first == 0);
    EXPECT_EQ(ours.value().first, 256);
}

} // namespace
} // namespace velmora
