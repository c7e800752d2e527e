#include "platform/IO.h"

#include "base/Errors.h"
#include "support/FaultDisk.h"
#include "support/Loops.h"

#include <cerrno>
#include <gtest/gtest.h>

// Small state files: whoever looks, after whatever accident, sees the old bytes or the new ones.

namespace velmora::test {
namespace {

namespace fs = std::filesystem;

const std::string oldBytes(3000, 'o');
const std::string newBytes(9000, 'n');

std::vector<std::string> names(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& entry : IO::list(folder))
        found.push_back(entry.name);
    return found;
}

struct Case {
    const char* name;
    bool replaces;
};

class SmallFiles : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        if (const auto reason = FaultDisk::unavailable())
            GTEST_SKIP() << *reason;
    }
    bool replaces() const { return GetParam().replaces; }
    DurableOperation operation() const {
        return {.prepare =
                    [this](const std::string& root) {
                        if (replaces())
                            std::ofstream(root + "/state") << oldBytes;
                    },
                .work =
                    [this](const std::string& root) {
                        if (replaces())
                            IO::writeFileDurably(root + "/state", newBytes);
                        else
                            IO::writeFileNew(root + "/state", newBytes);
                    }};
    }
    void expectOldOrNew(const std::string& root, bool succeeded) const {
        const std::string path = root + "/state";
        const std::string bytes = IO::exists(path) ? IO::readFile(path, 1 << 20) : "nothing";
        const std::string found = bytes == newBytes ? "new" : bytes == oldBytes ? "old" : bytes.substr(0, 40);
        if (succeeded)
            EXPECT_EQ(found, "new");
        else
            EXPECT_THAT(found, ::testing::AnyOf("new", replaces() ? "old" : "nothing"));
    }
};

TEST_P(SmallFiles, SurviveAnyFailingOperation) {
    for (const int error : {EIO, ENOSPC}) {
        const int rounds = faultLoop(operation(), error, [&](const std::string& root, bool succeeded) {
            expectOldOrNew(root, succeeded);
            EXPECT_LE(names(root).size(), 1U) << "a temporary file was left behind";
        });
        EXPECT_GE(rounds, 5); // create, write, fsync, rename, fsync of the folder
    }
}

TEST_P(SmallFiles, SurviveKillsAndPowerCuts) {
    const int rounds =
        crashLoop(operation(), {}, [&](const std::string& root, bool succeeded) { expectOldOrNew(root, succeeded); });
    EXPECT_GE(rounds, 8);
}

INSTANTIATE_TEST_SUITE_P(Platform, SmallFiles,
                         ::testing::Values(Case{"WriteFileNew", false}, Case{"WriteFileDurably", true}),
                         [](const auto& parameter) { return parameter.param.name; });

} // namespace
} // namespace velmora::test
