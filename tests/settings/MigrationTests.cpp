#include "platform/IO.h"
#include "settings/AppSupport.h"
#include "support/AsNobody.h"

namespace velmora {
namespace {

using test::TempFolder;

class MigrationTest : public ::testing::Test {
protected:
    TempFolder temp_;
    std::vector<std::string> log_;
    const std::string target_ = temp_ / "data/Velmora";

    void write(const std::string& name, const std::string& text = "x") {
        const std::string path = temp_ / name;
        IO::mkdirs(path.substr(0, path.rfind('/')));
        IO::writeFileDurably(path, text);
    }
    void migrate() {
        AppSupport::migrate(target_, {temp_ / "data/Tarnwick", temp_ / "data/Offload"},
                            [this](std::string_view line) { log_.emplace_back(line); });
    }
    std::set<std::string> below(const std::string& folder) const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
            names.insert(entry.path().lexically_relative(folder).string());
        return names;
    }
};

TEST_F(MigrationTest, CopiesTheNewestEarlierFolderOnceWithoutToolsAndLocks) {
    write("data/Tarnwick/settings.json", "{\"verify\":false}");
    write("data/Tarnwick/history.json");
    write("data/Tarnwick/history/a.files.gz");
    write("data/Tarnwick/history/bin/kept");
    write("data/Tarnwick/bin/ffmpeg");
    write("data/Tarnwick/locks/history-1.lock");
    write("data/Offload/settings.json", "{}");
    std::filesystem::create_symlink("/etc/passwd", temp_ / "data/Tarnwick/link");
    ASSERT_EQ(mkfifo((temp_ / "data/Tarnwick/pipe").c_str(), 0600), 0);
    const auto before = below(temp_ / "data/Tarnwick");
    migrate();
    EXPECT_THAT(below(target_),
                ::testing::UnorderedElementsAre("settings.json", "history.json", "history", "history/a.files.gz",
                                                "history/bin", "history/bin/kept"));
    EXPECT_EQ(IO::readFile(target_ + "/settings.json", 100), "{\"verify\":false}");
    EXPECT_EQ(below(temp_ / "data/Tarnwick"), before);
    ASSERT_EQ(log_.size(), 1u);
    EXPECT_EQ(log_[0], "settings copied from " + temp_.path() +
                           "/data/Tarnwick (the old folder is left as it was; tools and locks stay there)");
    EXPECT_EQ(IO::list(temp_ / "data").size(), 3u) << "no temporary folder stays";
    write("data/Tarnwick/later.json");
    migrate(); // there is a folder now
    EXPECT_FALSE(IO::exists(target_ + "/later.json"));
    EXPECT_EQ(log_.size(), 1u);
}

TEST_F(MigrationTest, LeavesNoHalfFolderWhenItFails) {
    write("data/Tarnwick/settings.json");
    write("blocked");
    AppSupport::migrate(temp_ / "blocked/Velmora", {temp_ / "data/Tarnwick"},
                        [this](std::string_view line) { log_.emplace_back(line); });
    EXPECT_THAT(log_, ::testing::ElementsAre("could not copy the settings from " + temp_.path() + "/data/Tarnwick"));
}

TEST_F(MigrationTest, NamesWhatItCouldNotRead) {
    write("data/Tarnwick/settings.json");
    write("data/Tarnwick/secret");
    ASSERT_EQ(chmod((temp_ / "data/Tarnwick/secret").c_str(), 0), 0);
    ASSERT_EQ(chmod(temp_.path().c_str(), 0755) + chmod((temp_ / "data").c_str(), 0777), 0);
    test::asNobody([this] { migrate(); });
    ASSERT_EQ(log_.size(), 1u);
    EXPECT_TRUE(log_[0].ends_with("; not copied (could not be read): secret")) << log_[0];
    // Of a folder that cannot be listed nothing is taken for copied, and the next run tries again.
    std::filesystem::remove_all(target_);
    ASSERT_EQ(chmod((temp_ / "data/Tarnwick").c_str(), 0700), 0);
    test::asNobody([this] { migrate(); });
    EXPECT_EQ(log_.back(), "could not copy the settings from " + temp_.path() + "/data/Tarnwick");
    EXPECT_FALSE(IO::exists(target_));
    ASSERT_EQ(chmod((temp_ / "data/Tarnwick").c_str(), 0755), 0);
    test::asNobody([this] { migrate(); });
    EXPECT_TRUE(IO::exists(target_ + "/settings.json"));
}

TEST_F(MigrationTest, AFolderNamedByHandTakesOverNothing) {
    write("home/Tarnwick/settings.json");
    setenv("XDG_DATA_HOME", (temp_ / "home").c_str(), 1);
    setenv("VELMORA_SETTINGS_DIR", (temp_ / "mine").c_str(), 1);
    const Log log = [this](std::string_view line) { log_.emplace_back(line); };
    AppSupport::migrate(log);
    EXPECT_FALSE(IO::exists(temp_ / "mine"));
    unsetenv("VELMORA_SETTINGS_DIR");
    AppSupport::migrate(log);
    EXPECT_TRUE(IO::exists(temp_ / "home/Velmora/settings.json"));
    EXPECT_EQ(AppSupport::searchFolders()[2], temp_ / "home/Offload");
    unsetenv("XDG_DATA_HOME");
}

} // namespace
} // namespace velmora
