#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "support/FaultDisk.h"
#include "support/Loops.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <unistd.h>

// The records of a backup: manifest lines and the ASC MHL history.

namespace velmora::test {
namespace {

class Records : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = FaultDisk::unavailable())
            GTEST_SKIP() << *reason;
    }
};

ManifestRecord record(const std::string& path) {
    ManifestRecord line;
    line.path = path;
    line.size = 200;
    line.modified = {1'700'000'000, 0};
    line.xxh64 = "0123456789abcdef";
    line.blockSize = 1;
    line.blocks.assign(200, BlockDigits("fedcba9876543210")); // long enough to lie in several sectors
    return line;
}

const std::vector<ManifestRecord> lines{record("a"), record("b"), record("c"), record("d")};

DurableOperation appendTwo(bool toExisting) {
    return {.prepare =
                [=](const std::string& root) {
                    IO::mkdirs(root + "/card");
                    if (toExisting)
                        ManifestFile::append(root + "/card", {lines.data(), 1});
                },
            .work = [](const std::string& root) { ManifestFile::append(root + "/card", {lines.data() + 1, 2}); }};
}

// The records that can be read, all of which must be ones that were written, in their order.
std::string readable(const std::string& root) {
    std::string paths;
    for (const auto& found : ManifestFile::read(root + "/card")) {
        EXPECT_EQ(found, record(found.path));
        paths += found.path;
    }
    return paths;
}

TEST_F(Records, ManifestKeepsItsGoodLinesWhateverFails) {
    for (const bool toExisting : {false, true})
        for (const int error : {EIO, ENOSPC}) {
            const int rounds = faultLoop(appendTwo(toExisting), error, [&](const std::string& root, bool succeeded) {
                const std::string first = toExisting ? "a" : "";
                const auto before = readable(root);
                EXPECT_TRUE(!succeeded || before == first + "bc") << before;
                EXPECT_TRUE(before.starts_with(first));
                ManifestFile::append(root + "/card", {lines.data() + 3, 1});
                EXPECT_EQ(readable(root), before + "d") << "a torn line swallowed a good one";
            });
            EXPECT_GE(rounds, toExisting ? 3 : 7);
        }
}

TEST_F(Records, ManifestKeepsItsGoodLinesThroughKillsAndPowerCuts) {
    for (const bool toExisting : {false, true}) {
        const std::string first = toExisting ? "a" : "";
        int rounds = crashLoop(appendTwo(toExisting), {}, [&](const std::string& root, bool succeeded) {
            const auto found = readable(root);
            EXPECT_TRUE(found.starts_with(first)) << found;
            EXPECT_TRUE(!succeeded || found == first + "bc") << found;
        });
        const auto appendAnother = [](const std::string& root) {
            ManifestFile::append(root + "/card", {lines.data() + 3, 1});
        };
        rounds += crashLoop(appendTwo(toExisting), {.recover = appendAnother}, [&](const std::string& root, bool) {
            const auto found = readable(root);
            EXPECT_TRUE(found.starts_with(first) && found.ends_with("d")) << found;
        });
        EXPECT_GE(rounds, 10);
    }
}

OffloadReport report(int generation, const std::string& root) {
    OffloadReport result;
    result.cardName = "card";
    result.source = "/media/card";
    result.generation = generation;
    result.kind = generation == 1 ? "copy" : "append";
    result.verified = true;
    result.destinations.resize(1);
    result.destinations.front().cardPath = root + "/card";
    for (int i = 0; i < 20; ++i) {
        auto& file = result.files.emplace_back();
        file.path = std::to_string(generation) + "/" + std::to_string(i);
        file.xxh64 = "0123456789abcdef";
        file.destinations = {"verified"};
        file.errors = {std::nullopt};
    }
    return result;
}

// As a run does it that finds an earlier attempt: the generation is written unless it stands there.
void writeGeneration(const std::string& root, int generation) {
    const auto wanted = report(generation, root);
    if (!MHL::hasGeneration(wanted, root + "/card"))
        MHL::write(wanted, root + "/card", {1'700'000'000 + getpid(), 0}, "host"); // another second for every try
}

DurableOperation writeGenerationOperation(int generation) {
    return {.prepare =
                [=](const std::string& root) {
                    IO::mkdirs(root + "/card");
                    for (int earlier = 1; earlier < generation; ++earlier)
                        writeGeneration(root, earlier);
                },
            .work = [=](const std::string& root) { writeGeneration(root, generation); }};
}

// The earlier generations stand unharmed, and this one stands whole or not at all.
void expectSoundHistory(const std::string& root, int generation, bool written) {
    const auto history = MHLReader::read(root + "/card");
    EXPECT_THAT(history.problemsBeside(generation), ::testing::IsEmpty());
    EXPECT_GE(history.lastChained(), generation - 1);
    for (int earlier = 1; earlier < generation; ++earlier)
        EXPECT_TRUE(MHL::hasGeneration(report(earlier, root), root + "/card"));
    EXPECT_TRUE(!written || MHL::hasGeneration(report(generation, root), root + "/card"));
}

TEST_F(Records, HistoryGrowsByWholeGenerationsWhateverFails) {
    for (const int generation : {1, 2}) {
        const int rounds =
            faultLoop(writeGenerationOperation(generation), EIO, [&](const std::string& root, bool succeeded) {
                expectSoundHistory(root, generation, succeeded);
                writeGeneration(root, generation);
                expectSoundHistory(root, generation, true);
            });
        EXPECT_GE(rounds, 9);
    }
}

TEST_F(Records, HistoryGrowsByWholeGenerationsThroughKillsAndPowerCuts) {
    for (const int generation : {1, 2}) {
        const auto operation = writeGenerationOperation(generation);
        int rounds = crashLoop(operation, {}, [&](const std::string& root, bool succeeded) {
            expectSoundHistory(root, generation, succeeded);
        });
        rounds += crashLoop(operation, {.recover = operation.work}, [&](const std::string& root, bool succeeded) {
            expectSoundHistory(root, generation, succeeded);
        });
        EXPECT_GE(rounds, 18);
    }
}

} // namespace
} // namespace velmora::test
