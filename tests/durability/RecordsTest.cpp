#include "base/Text.h"
#include "blocks/ManifestFile.h"
#include "mhl/MHL.h"
#include "mhl/MHLReader.h"
#include "platform/IO.h"
#include "support/FaultDisk.h"
#include "support/Loops.h"

// The records of a backup: small files, manifest lines and the ASC MHL history.

namespace velmora::test {
namespace {

class Records : public ::testing::Test {
protected:
    void SetUp() override { VELMORA_NEEDS(FaultDisk::unavailable()); }
};

// Whoever looks, after whatever accident, sees the old bytes or the new ones. An empty string: no file.
TEST_F(Records, SmallFilesAreOldOrNewWhateverHappens) {
    for (const std::string& before : {std::string(), std::string(3000, 'o')}) {
        const std::string after(9000, 'n');
        DurableOperation operation;
        operation.prepare = [&](const std::string& root) {
            if (!before.empty())
                std::ofstream(root + "/state") << before;
        };
        operation.work = [&](const std::string& root) {
            before.empty() ? IO::writeFileNew(root + "/state", after) : IO::writeFileDurably(root + "/state", after);
        };
        const Check check = [&](const std::string& root, bool succeeded) {
            const std::string found = IO::exists(root + "/state") ? IO::readFile(root + "/state", 1 << 20) : "";
            EXPECT_TRUE(found == after || (!succeeded && found == before)) << found.substr(0, 40);
        };
        const Check clean = [&](const std::string& root, bool succeeded) {
            check(root, succeeded);
            EXPECT_LE(IO::list(root).size(), 1U) << "a temporary file was left behind";
        };
        for (const int error : {EIO, ENOSPC})
            EXPECT_GE(faultLoop(operation, error, clean), 5); // create, write, fsync, rename, fsync of the folder
        EXPECT_GE(crashLoop(operation, {}, check), 8);
    }
}

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

void append(const std::string& root, std::size_t first, std::size_t count) {
    IO::mkdirs(root + "/card"); // lost with the power, perhaps
    ManifestFile::append(root + "/card", {lines.data() + first, count});
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

TEST_F(Records, ManifestKeepsItsGoodLinesWhateverHappens) {
    for (const std::string first : {"", "a"}) {
        DurableOperation operation;
        operation.prepare = [&](const std::string& root) {
            IO::mkdirs(root + "/card");
            append(root, 0, first.size());
        };
        operation.work = [](const std::string& root) { append(root, 1, 2); };
        const Check check = [&](const std::string& root, bool succeeded) {
            const auto found = readable(root);
            EXPECT_TRUE(found.starts_with(first) && (!succeeded || found == first + "bc")) << found;
        };
        for (const int error : {EIO, ENOSPC})
            faultLoop(operation, error, [&](const std::string& root, bool succeeded) {
                check(root, succeeded);
                const auto before = readable(root);
                append(root, 3, 1);
                EXPECT_EQ(readable(root), before + "d") << "a torn line swallowed a good one";
            });
        EXPECT_GE(crashLoop(operation, {}, check), 5);
        crashLoop(operation, {.recover = [](const std::string& root) { append(root, 3, 1); }},
                  [&](const std::string& root, bool) {
                      const auto found = readable(root);
                      EXPECT_TRUE(found.starts_with(first) && found.ends_with("d")) << found;
                  });
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
    IO::mkdirs(root + "/card");
    if (!MHL::hasGeneration(wanted, root + "/card"))
        MHL::write(wanted, root + "/card", {1'700'000'000 + getpid(), 0}, "host"); // another second for every try
}

// The earlier generations stand unharmed, and this one stands whole or not at all.
void expectSoundHistory(const std::string& root, int generation, bool written) {
    const auto history = MHLReader::read(root + "/card");
    EXPECT_THAT(history.problemsBeside(generation), ::testing::IsEmpty());
    EXPECT_GE(history.lastChained(), generation - 1);
    for (int earlier = 1; earlier < generation; ++earlier)
        EXPECT_TRUE(MHL::hasGeneration(report(earlier, root), root + "/card"));
    EXPECT_TRUE(!written || MHL::hasGeneration(report(generation, root), root + "/card"));
    EXPECT_TRUE(!written || history.chainProblems.empty()) << "something of an earlier attempt is in the way";
}

TEST_F(Records, HistoryGrowsByWholeGenerationsWhateverHappens) {
    for (const int generation : {1, 2}) {
        DurableOperation operation;
        operation.prepare = [=](const std::string& root) {
            IO::mkdirs(root + "/card");
            for (int earlier = 1; earlier < generation; ++earlier)
                writeGeneration(root, earlier);
        };
        operation.work = [=](const std::string& root) { writeGeneration(root, generation); };
        const Check check = [=](const std::string& root, bool succeeded) {
            expectSoundHistory(root, generation, succeeded);
        };
        const int rounds = faultLoop(operation, EIO, [&](const std::string& root, bool succeeded) {
            check(root, succeeded);
            writeGeneration(root, generation);
            check(root, true);
        });
        EXPECT_GE(rounds, 9);
        EXPECT_GE(crashLoop(operation, {}, check), 9);
        crashLoop(operation, {.recover = operation.work}, check);
        EXPECT_GE(worstMoments(operation, {.ops = "rename"}, check), 2);
    }
}

} // namespace
} // namespace velmora::test
