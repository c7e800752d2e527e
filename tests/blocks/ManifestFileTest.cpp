#include "blocks/ManifestFile.h"
#include "support/FaultDisk.h"

namespace velmora {
namespace {

using test::FileTree::read;
using test::FileTree::write;

ManifestRecord fileLine(const std::string& path, std::int64_t gen = 1) {
    ManifestRecord record;
    record.gen = gen;
    record.path = path;
    record.size = 10;
    record.modified = {1'700'000'000, 0};
    record.xxh64 = "00000000000000ab";
    record.blockSize = 4096;
    record.blocks = {BlockDigits("0123456789abcdef")};
    return record;
}

ManifestRecord partLine(const std::string& path, std::int64_t first, std::size_t blocks,
                        std::int64_t size = 1'000'000) {
    ManifestRecord record = fileLine(path);
    record.kind = ManifestRecord::partKind;
    record.xxh64.reset();
    record.size = size;
    record.first = first;
    record.blocks.assign(blocks, BlockDigits("0123456789abcdef"));
    return record;
}

std::vector<std::string> paths(const std::string& card) {
    std::vector<std::string> all;
    for (const ManifestRecord& record : ManifestFile::read(card))
        all.push_back(record.path);
    return all;
}

using Paths = std::vector<std::string>;

TEST(ManifestFile, AppendsLinesThatReadBackInOrder) {
    const test::TempFolder card;
    EXPECT_TRUE(ManifestFile::read(card.path()).empty());
    ManifestFile::append(card.path(), {});
    EXPECT_FALSE(std::filesystem::exists(card / "_REPORT"));
    const std::vector<ManifestRecord> records{fileLine("DCIM/a&b \"ü\".mov"), partLine("b", 0, 2)};
    ManifestFile::append(card.path(), std::span(records).first(1));
    ManifestFile::append(card.path(), std::span(records).subspan(1));
    EXPECT_EQ(ManifestFile::read(card.path()), records);
}

TEST(ManifestFile, SealsOffATornLineAndLosesOnlyThatOne) {
    const std::string whole = fileLine("a").line() + "\n";
    const std::string torn = fileLine("b").line();
    for (std::size_t cut = 1; cut < torn.size(); ++cut) {
        const test::TempFolder card;
        write(ManifestFile::path(card.path()), whole + torn.substr(0, cut));
        ManifestFile::append(card.path(), std::vector{fileLine("c")});
        ASSERT_EQ(paths(card.path()), (Paths{"a", "c"})) << "cut after " << cut;
    }
    const test::TempFolder card; // only the line feed was lost: the line is good, and stays so
    write(ManifestFile::path(card.path()), whole + torn);
    EXPECT_EQ(paths(card.path()), (Paths{"a", "b"}));
    ManifestFile::append(card.path(), std::vector{fileLine("c")});
    EXPECT_EQ(paths(card.path()), (Paths{"a", "b", "c"}));
    EXPECT_TRUE(read(ManifestFile::path(card.path())).starts_with(whole + torn + "\n{"));
}

TEST(ManifestFile, PassesOverWhatIsNoRecord) {
    const test::TempFolder card;
    std::string text = "\n\n" + fileLine("a").line() + "\n";
    text += "null\n[]\n{\"size\":\"ten\"}\n{\"path\":\"\xff\"}\n" + std::string(5000, '[') + "\n";
    text += std::string(4096, '\0') + "\n";
    text += R"({"path":"b","from":"a newer version","v":9})"
            "\n";
    text += "\"" + std::string(70 << 20, 'x') + "\"\n"; // longer than any line is let grow
    text += fileLine("c").line();
    write(ManifestFile::path(card.path()), text);
    EXPECT_EQ(paths(card.path()), (Paths{"a", "b", "c"}));
}

TEST(ManifestFile, FollowsNoLinkOutOfTheCardFolder) {
    const test::TempFolder card, elsewhere;
    write(elsewhere / "m", fileLine("a").line() + "\n");
    std::filesystem::create_directory(card / "_REPORT");
    std::filesystem::create_symlink(elsewhere / "m", ManifestFile::path(card.path()));
    EXPECT_TRUE(ManifestFile::read(card.path()).empty());
    EXPECT_THROW(ManifestFile::append(card.path(), std::vector{fileLine("b")}), IOError);
    EXPECT_EQ(read(elsewhere / "m"), fileLine("a").line() + "\n");
    EXPECT_THROW(ManifestFile::append(card / "gone", std::vector{fileLine("b")}), IOError) << "it is made elsewhere";
}

TEST(ManifestFile, KeepsEveryPromisedLineWhenThePowerGoes) {
    VELMORA_NEEDS(test::FaultDisk::unavailable());
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        std::string medium;
        std::string done;
        test::FaultDisk disk;
        const std::string card = disk.root() + "/card";
        std::filesystem::create_directory(card);
        ManifestFile::append(card, std::vector{fileLine("a"), fileLine("b")});
        disk.fail(EIO, {.ops = "fsync", .pattern = "*.jsonl"});
        EXPECT_THROW(ManifestFile::append(card, std::vector{fileLine("lost?")}), IOError);
        ManifestFile::append(card, std::vector{fileLine("c")});
        disk.fail(EIO, {.ops = "fsync", .pattern = "*.jsonl"});
        EXPECT_THROW(ManifestFile::append(card, std::vector{fileLine("torn?")}), IOError);
        done = disk.cutPower(seed, 50);
        medium = disk.medium() + "/card";
        // The folder "card" itself was nobody's promise here; what is below it is.
        if (!std::filesystem::exists(medium))
            continue;
        Paths left = paths(medium);
        std::erase_if(left, [](const std::string& p) { return p.ends_with('?'); });
        EXPECT_EQ(left, (Paths{"a", "b", "c"})) << "seed " << seed << ": " << done;
        ManifestFile::append(medium, std::vector{fileLine("d")});
        EXPECT_EQ(paths(medium).back(), "d");
    }
}

TEST(ManifestFile, TakesManyWritersAtOnce) {
    const test::TempFolder card;
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w)
        writers.emplace_back([&, w] {
            for (int i = 0; i < 25; ++i)
                ManifestFile::append(card.path(), std::vector{fileLine(std::to_string(w * 25 + i))});
        });
    for (std::thread& writer : writers)
        writer.join();
    const Paths all = paths(card.path());
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()).size(), 100U);
}

TEST(ManifestRecords, FilesAreTheLastLinesOfTheirGeneration) {
    ManifestRecord again = fileLine("DCIM/A.mov");
    again.size = 77;
    const std::vector<ManifestRecord> records{fileLine("dcim/a.MOV"), fileLine("x", 2), partLine("p", 0, 1), again};
    const auto files = ManifestFile::files(records, 1);
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files.at("dcim/a.mov").size, 77);
    EXPECT_EQ(ManifestFile::files(records, 2).size(), 1U);
}

TEST(ManifestRecords, CheckpointsJoinWithoutAGap) {
    ManifestRecord shortHash = partLine("a", 64, 1);
    shortHash.blocks[0] = BlockDigits("0123456789abcde");
    ManifestRecord otherTime = partLine("a", 64, 64);
    otherTime.modified.seconds += 1;
    ManifestRecord otherBlocks = partLine("a", 64, 64);
    otherBlocks.blockSize *= 2;
    ManifestRecord noBlocks = partLine("a", 0, 2);
    noBlocks.blockSize = 0;
    ManifestRecord otherGeneration = partLine("a", 64, 64);
    otherGeneration.gen = 2;
    const struct {
        const char* what;
        std::vector<ManifestRecord> records;
        std::size_t blocks;
    } cases[] = {
        {"in order", {partLine("a", 0, 64), partLine("A", 64, 64), partLine("a", 128, 3)}, 131},
        {"a gap", {partLine("a", 0, 64), partLine("a", 128, 64)}, 64},
        {"the gap is filled later", {partLine("a", 0, 64), partLine("a", 128, 64), partLine("a", 64, 8)}, 72},
        {"a second attempt", {partLine("a", 0, 64), partLine("a", 64, 64), partLine("a", 0, 5)}, 5},
        {"no beginning", {partLine("a", 64, 64)}, 0},
        {"a malformed hash", {partLine("a", 0, 64), shortHash}, 64},
        {"another size", {partLine("a", 0, 64), partLine("a", 64, 64, 5)}, 64},
        {"another time", {partLine("a", 0, 64), otherTime}, 64},
        {"another block size", {partLine("a", 0, 64), otherBlocks}, 64},
        {"no block size", {noBlocks}, 0},
        {"another generation", {partLine("a", 0, 64), otherGeneration}, 64},
    };
    for (const auto& c : cases) {
        const auto parts = ManifestFile::parts(c.records, 1);
        EXPECT_EQ(parts.empty() ? 0 : parts.at("a").blocks.size(), c.blocks) << c.what;
    }
    EXPECT_FALSE(partLine("a", 0, 64).toManifest());
}

} // namespace
} // namespace velmora
