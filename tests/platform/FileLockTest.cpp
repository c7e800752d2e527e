#include "platform/FileLock.h"
#include "platform/AppSupportFolder.h"

namespace velmora {
namespace {

TEST(FileLock, ExcludesInOneProcessAndComesBackOnRelease) {
    const test::TempFolder folder;
    const std::string path = folder / "locks/deep/a.lock";
    auto first = FileLock::tryLock(path);
    ASSERT_TRUE(first);
    struct stat info{};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    EXPECT_FALSE(FileLock::tryLock(path));
    EXPECT_FALSE(FileLock::lock(path, 0.05));
    EXPECT_TRUE(FileLock::tryLock(folder / "locks/b.lock"));

    FileLock moved = std::move(*first);
    EXPECT_FALSE(FileLock::tryLock(path));
    std::thread([&] { moved.release(); }).join();
    moved.release();
    first->release(); // NOLINT(bugprone-use-after-move): must do nothing
    EXPECT_TRUE(FileLock::tryLock(path));
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << "the lock file must stay";
    EXPECT_FALSE(FileLock::tryLock("/proc/nowhere/a.lock"));
}

TEST(FileLock, ExcludesOtherProcessesAndDiesWithItsHolder) {
    const test::TempFolder folder;
    const std::string path = folder / "a.lock";
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto held = FileLock::tryLock(path);
        const char answer = held ? 'y' : 'n';
        [[maybe_unused]] const ssize_t n = ::write(ready[1], &answer, 1);
        ::pause();
        ::_exit(0);
    }
    char answer = 0;
    ASSERT_EQ(::read(ready[0], &answer, 1), 1);
    ASSERT_EQ(answer, 'y');
    EXPECT_FALSE(FileLock::tryLock(path));

    // Somebody who waits gets it when the holder is killed.
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ::kill(child, SIGKILL);
    });
    EXPECT_TRUE(FileLock::lock(path, 20));
    killer.join();
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST(AppSupportFolder, FollowsTheEnvironmentInOrder) {
    const struct {
        std::map<std::string, std::string> environment;
        std::vector<std::string> folders;
    } cases[] = {
        {{{"HOME", "/home/ann"}},
         {"/home/ann/.local/share/Velmora", "/home/ann/.local/share/Tarnwick", "/home/ann/.local/share/Offload"}},
        {{{"HOME", "/home/ann"}, {"XDG_DATA_HOME", "/data"}}, {"/data/Velmora", "/data/Tarnwick", "/data/Offload"}},
        {{{"HOME", "/h"}, {"XDG_DATA_HOME", "relative"}},
         {"/h/.local/share/Velmora", "/h/.local/share/Tarnwick", "/h/.local/share/Offload"}},
        {{{"XDG_DATA_HOME", "/d"}, {"OFFLOAD_SETTINGS_DIR", "/o"}}, {"/o", "/d/Tarnwick", "/d/Offload"}},
        {{{"XDG_DATA_HOME", "/d"}, {"OFFLOAD_SETTINGS_DIR", "/o"}, {"TARNWICK_SETTINGS_DIR", "/t"}},
         {"/t", "/d/Tarnwick", "/d/Offload"}},
        {{{"XDG_DATA_HOME", "/d"}, {"VELMORA_SETTINGS_DIR", ""}, {"TARNWICK_SETTINGS_DIR", "/t"}},
         {"/t", "/d/Tarnwick", "/d/Offload"}},
        {{{"XDG_DATA_HOME", "/d"}, {"VELMORA_SETTINGS_DIR", "/v"}, {"TARNWICK_SETTINGS_DIR", "/t"}},
         {"/v", "/d/Tarnwick", "/d/Offload"}},
    };
    const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "/";
    for (const auto& c : cases) {
        for (const char* name :
             {"VELMORA_SETTINGS_DIR", "TARNWICK_SETTINGS_DIR", "OFFLOAD_SETTINGS_DIR", "XDG_DATA_HOME", "HOME"})
            ::unsetenv(name);
        for (const auto& [name, value] : c.environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        EXPECT_EQ(AppSupportFolder::searchFolders(), c.folders);
        EXPECT_EQ(AppSupportFolder::path(), c.folders.front());
    }
    ::setenv("HOME", home.c_str(), 1);
}

} // namespace
} // namespace velmora
