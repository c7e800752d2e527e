#include "blocks/ManifestFile.h"
#include "engine/OffloadEngine.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"
#include "support/FaultDisk.h"
#include "support/Loops.h"

#include <fmt/format.h>
#include <random>

// A whole copy to two folders of a disk that fails, of a process that is killed, of a computer that loses its power.

namespace velmora::test {
namespace {

constexpr std::int64_t block = 65536;

class Copy : public ::testing::Test {
protected:
    void SetUp() override {
        VELMORA_NEEDS(FaultDisk::unavailable());
        FileTree::make(source_.path(), {{"DCIM/big.mov", 5 * block + 100},
                                        {"DCIM/big2.mov", 4 * block},
                                        {"DCIM/empty.txt", 0},
                                        {"DCIM/ключ & <1>.txt", 10'000},
                                        {"side/a.xml", 100},
                                        {"side/b.xml", block + 1},
                                        {"void/inner/"}});
        files_ = FileTree::contents(source_.path());
    }

    static std::string readIfThere(const std::string& path) {
        return IO::exists(path) ? FileTree::read(path) : "nothing is there";
    }

    static std::vector<std::string> cards(const std::string& root) {
        return {root + "/one/2026-03-14/CARD", root + "/two/2026-03-14/CARD"};
    }

    // Throws when the run says that anything is wrong.
    void run(const std::string& root) const {
        OffloadOptions options;
        options.chunkSize = block;
        options.bufferCount = 2;
        options.fullSyncThreshold = 4 * block;
        options.checkpointBlocks = 2;
        options.allowSameDevice = true;
        options.allowSourceVolume = true;
        std::string said;
        OffloadEngine engine(options, [&](std::string_view line) { said += line; });
        const auto report =
            engine.run(engine.prepare({source_.path(), {root + "/one", root + "/two"}, "CARD", "2026-03-14"}));
        for (const auto* file : report.failedFiles())
            for (const auto& error : file->errors)
                said += file->path + ": " + error.value_or("") + "; ";
        if (!said.empty())
            throw std::runtime_error(said);
    }

    // Every line that calls something safe tells the truth. A part file that was given up is gone, and its lines with
    // it.
    void expectHonestManifests(const std::string& root, bool mayHaveGivenUp = false) const {
        for (const auto& card : cards(root)) {
            const auto records = ManifestFile::read(card);
            const auto finished = ManifestFile::files(records, 1);
            for (const auto& [key, record] : finished)
                EXPECT_TRUE(readIfThere(card + "/" + record.path) == files_.at(record.path))
                    << card << " calls " << record.path << " complete";
            for (const auto& [key, part] : ManifestFile::parts(records, 1)) {
                const auto slash = part.path.rfind('/') + 1;
                const std::string hidden =
                    card + "/" + part.path.substr(0, slash) + "." + part.path.substr(slash) + ".offload-part";
                const auto& truth = files_.at(part.path);
                const auto promised = std::min(part.blocks.size() * block, truth.size());
                const std::string path = IO::exists(hidden) ? hidden : card + "/" + part.path;
                const bool excused = finished.contains(key) || (mayHaveGivenUp && !IO::exists(path));
                EXPECT_TRUE(excused || readIfThere(path).starts_with(truth.substr(0, promised)))
                    << path << " has lost a checkpoint of " << part.blocks.size() << " blocks";
            }
        }
    }

    void expectWhole(const std::string& card) const {
        if (!IO::exists(card))
            return ADD_FAILURE() << card << " is not there";
        auto found = FileTree::contents(card);
        std::erase_if(found, [](const auto& entry) { return entry.first.starts_with("_REPORT"); });
        EXPECT_TRUE(found == files_) << card << " holds other files than the card";
        EXPECT_EQ(ManifestFile::files(ManifestFile::read(card), 1).size(),
                  std::count_if(files_.begin(), files_.end(), [](const auto& f) { return f.first.back() != '/'; }));
    }

    Check judge(bool mayHaveGivenUp) const {
        return [=, this](const std::string& root, bool succeeded) {
            expectHonestManifests(root, mayHaveGivenUp);
            for (const auto& card : cards(root))
                if (succeeded)
                    expectWhole(card);
        };
    }

    DurableOperation copy() const {
        return {.prepare =
                    [](const std::string& root) {
                        IO::mkdirs(root + "/one");
                        IO::mkdirs(root + "/two");
                    },
                .work = [this](const std::string& root) { run(root); }};
    }

    TempFolder source_;
    std::map<std::string, std::string> files_;
};

TEST_F(Copy, TellsOfEveryFailedOperationAndOfNoOther) { EXPECT_GE(faultLoop(copy(), EIO, judge(true)), 40); }

TEST_F(Copy, PromisesNothingThatAKillOrAPowerCutTakesBack) {
    EXPECT_GE(crashLoop(copy(), {}, judge(false)), 24);
    // Each line, the moment after it was written, on a disk that keeps nothing but what was flushed.
    for (const auto power : {FaultDisk::Power::remembered, FaultDisk::Power::perFile}) {
        DurableOperation operation = copy();
        operation.power = power;
        EXPECT_GE(worstMoments(operation, {.ops = "fsync", .pattern = "*/offload-manifest.jsonl"}, judge(false)), 12);
    }
}

// The same on a real file system whose blocks are lost between two flushes of the device.
TEST_F(Copy, PromisesNothingThatExt4LosesInAPowerCut) {
    VELMORA_NEEDS(PowerCutDisk::unavailable());
    std::mt19937_64 random(seed());
    const int rounds = soaking() ? 200 : 6;
    for (int round = 0; round < rounds; ++round) {
        PowerCutDisk disk(64);
        copy().prepare(disk.root());
        shell("sync --file-system " + disk.root()); // not of other disks, which may hang
        const auto strike = static_cast<std::int64_t>(random() % 60);
        disk.device().fail(EIO, {.ops = "write,fsync", .skip = strike, .times = 0});
        std::string said = "whole";
        try {
            run(disk.root());
        } catch (const std::exception& error) {
            said = error.what();
        }
        SCOPED_TRACE(fmt::format("VELMORA_SEED={} round {}: dead from block operation {} on; {}; the copy said: {}",
                                 seed(), round, strike, disk.cutPowerAndRestart(seed() + round), said.substr(0, 300)));
        judge(true)(disk.root(), said == "whole");
    }
}

} // namespace
} // namespace velmora::test
