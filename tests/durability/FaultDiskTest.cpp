#include "support/FaultDisk.h"

// The disk that everything else is judged with has to be judged first.

namespace velmora::test {
namespace {

namespace fs = std::filesystem;

class FaultDiskTest : public ::testing::Test {
protected:
    void SetUp() override { VELMORA_NEEDS(FaultDisk::unavailable()); }
};

std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Writes with plain calls and returns the errno of the first that fails.
int write(const std::string& path, const std::string& bytes, bool flushed) {
    errno = 0;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return errno;
    int error = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) ? 0 : errno ? errno : -1;
    if (error == 0 && flushed && fsync(fd) != 0)
        error = errno;
    close(fd);
    return error;
}

int flushFolder(const std::string& path, int (*flush)(int)) {
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int error = flush(fd) == 0 ? 0 : errno;
    close(fd);
    return error;
}

TEST_F(FaultDiskTest, FailsCorruptsFillsUpTurnsReadOnlyAndVanishesWhereItIsTold) {
    FaultDisk disk;
    disk.fail(EDQUOT, {.ops = "write", .skip = 1, .pattern = "/b*"});
    EXPECT_EQ(write(disk.root() + "/b1", "2", false), 0);
    EXPECT_EQ(write(disk.root() + "/b2", "3", false), EDQUOT);
    EXPECT_EQ(write(disk.root() + "/a", "abcd", true), 0);
    EXPECT_EQ(disk.hits(), 1);
    EXPECT_EQ(disk.lastHit(), "write /b2");
    EXPECT_EQ(disk.count("create"), 3);
    disk.fail(EIO, {.ops = "syncfs"});
    EXPECT_EQ(flushFolder(disk.root(), syncfs), EIO);
    EXPECT_EQ(flushFolder(disk.root(), syncfs), 0);
    disk.flip({.ops = "read", .pattern = "/a"}, 8);
    EXPECT_EQ(read(disk.root() + "/a"), "accd");
    EXPECT_EQ(read(disk.medium() + "/a"), "abcd");
    disk.fillUp(6);
    EXPECT_EQ(write(disk.root() + "/b", "1234", false), 0);
    EXPECT_EQ(write(disk.root() + "/c", "5678", false), -1) << "short write";
    EXPECT_EQ(write(disk.root() + "/d", "5678", false), ENOSPC);
    disk.clear();
    disk.turnReadOnly({.ops = "write"});
    EXPECT_EQ(write(disk.root() + "/e", "1", false), EROFS);
    EXPECT_NE(unlink((disk.root() + "/a").c_str()), 0);
    EXPECT_EQ(access((disk.root() + "/a").c_str(), F_OK), 0);
    disk.clear();
    disk.vanish({.ops = "mkdir"});
    EXPECT_NE(mkdir((disk.root() + "/f").c_str(), 0755), 0);
    EXPECT_NE(access((disk.root() + "/a").c_str(), F_OK), 0);
}

TEST_F(FaultDiskTest, KillsTheProcessThatReachesTheOperationOrTheOneBehindIt) {
    for (const bool behind : {false, true}) {
        FaultDisk disk;
        disk.crash({.ops = "write", .skip = 1}, behind);
        const pid_t child = fork();
        if (child == 0) {
            for (const char* name : {"/a", "/b", "/c"})
                write(disk.root() + name, "x", false);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        EXPECT_EQ(disk.lastHit(), behind ? "create /c" : "write /b");
        disk.clear();
        EXPECT_EQ(read(disk.root() + "/b"), behind ? "x" : "");
        EXPECT_FALSE(fs::exists(disk.root() + "/c"));
    }
}

// What a cut may leave of five histories of one file. Over many seeds every outcome listed must come up, and no other.
TEST_F(FaultDiskTest, PowerCutTakesBackOnlyWhatWasNotFlushed) {
    const std::string data(4096, 'd');
    enum Flush { none, file, fileAndFolder, everything, failedThenGood };
    for (const Flush flush : {none, file, fileAndFolder, everything, failedThenGood}) {
        const bool flushesFile = flush == file || flush == fileAndFolder || flush == failedThenGood;
        bool vanished = false, wrong = false, right = false;
        for (std::uint64_t seed = 0; seed < 12; ++seed) {
            FaultDisk disk;
            if (flush == failedThenGood)
                disk.fail(EIO, {.ops = "fsync"});
            EXPECT_EQ(write(disk.root() + "/.part", data, flushesFile), flush == failedThenGood ? EIO : 0);
            ASSERT_EQ(rename((disk.root() + "/.part").c_str(), (disk.root() + "/final").c_str()), 0);
            if (flush == fileAndFolder)
                flushFolder(disk.root(), fsync);
            if (flush == everything || flush == failedThenGood)
                flushFolder(disk.root(), syncfs);
            disk.cutPower(seed);
            const bool there = fs::exists(disk.medium() + "/final");
            EXPECT_FALSE(there && fs::exists(disk.medium() + "/.part"));
            vanished |= !there;
            wrong |= there && read(disk.medium() + "/final") != data;
            right |= there && read(disk.medium() + "/final") == data;
        }
        EXPECT_EQ(vanished, flush == none || flush == file) << flush;
        EXPECT_EQ(wrong, flush == none || flush == failedThenGood) << flush;
        EXPECT_EQ(right, flush != failedThenGood) << flush;
    }
}

TEST_F(FaultDiskTest, PowerCutBringsBackWhatWasRemovedOrReplaced) {
    std::set<std::string> seen;
    for (std::uint64_t seed = 0; seed < 16; ++seed) {
        FaultDisk disk;
        for (const char* name : {"/old", "/gone", "/new"})
            ASSERT_EQ(write(disk.root() + name, name, true), 0);
        ASSERT_EQ(flushFolder(disk.root(), fsync), 0);
        ASSERT_EQ(unlink((disk.root() + "/gone").c_str()), 0);
        ASSERT_EQ(rename((disk.root() + "/new").c_str(), (disk.root() + "/old").c_str()), 0);
        disk.cutPower(seed);
        EXPECT_EQ(fs::exists(disk.medium() + "/new"), read(disk.medium() + "/old") == "/old");
        seen.insert(read(disk.medium() + "/gone") + read(disk.medium() + "/old"));
    }
    EXPECT_EQ(seen, (std::set<std::string>{"/gone/old", "/gone/new", "/old", "/new"}));
}

TEST(PowerCutDisk, KeepsWhatWasFlushedAndLosesSomethingElse) {
    VELMORA_NEEDS(PowerCutDisk::unavailable());
    bool lost = false;
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        PowerCutDisk disk(64);
        ASSERT_EQ(write(disk.root() + "/flushed", std::string(300'000, 'f'), true), 0);
        ASSERT_EQ(flushFolder(disk.root(), fsync), 0);
        ASSERT_EQ(write(disk.root() + "/loose", std::string(300'000, 'l'), false), 0);
        const auto said = disk.cutPowerAndRestart(seed);
        EXPECT_EQ(read(disk.root() + "/flushed"), std::string(300'000, 'f')) << said;
        lost |= read(disk.root() + "/loose") != std::string(300'000, 'l');
    }
    EXPECT_TRUE(lost);
}

} // namespace
} // namespace velmora::test
