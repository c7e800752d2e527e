#include "support/FaultDisk.h"

// The disk that everything else is judged with has to be judged first: whether it kills and forgets. That its single
// faults strike is asserted wherever they are used.

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
