#include "blocks/ReadBack.h"
#include "blocks/BlockReads.h"
#include "blocks/BlockVerifier.h"
#include "blocks/CacheProbe.h"
#include "blocks/CardVerdict.h"
#include "blocks/MultiHasher.h"
#include "blocks/ReadAhead.h"
#include "platform/IO.h"
#include "support/FaultDisk.h"

namespace velmora {
namespace {

using test::FaultDisk;
using test::FileTree::flipBit;

constexpr std::int64_t blockSize = 64 * 1024;

// A file and what the copy knows of it.
struct Copied {
    explicit Copied(const std::string& folder, std::size_t size, std::int64_t block = blockSize)
        : content(test::FileTree::bytes(size, size)), blockBytes(block) {
        test::FileTree::write(folder + "/DCIM/A.mov", content);
        MultiHasher hasher(HashKinds::xxh64, block, true);
        hasher.update(reinterpret_cast<const std::byte*>(content.data()), static_cast<std::int64_t>(size));
        std::tie(hashes, blocks) = hasher.finish();
    }
    BlockManifest manifest() const { return {static_cast<std::int64_t>(content.size()), blockBytes, blocks}; }
    ReadBack::Expected expected() const {
        return {static_cast<std::int64_t>(content.size()), hashes.xxh64, blockBytes, blocks};
    }
    std::string content;
    std::int64_t blockBytes;
    FileHashes hashes;
    std::vector<std::uint64_t> blocks;
};

std::function<UncachedReader()> opening(const test::TempFolder& card, const std::string& path) {
    return [=, root = card.path()] { return UncachedReader::beneath(root, path); };
}

ReadBack::Outcome readBack(const std::string& folder, const ReadBack::Expected& expected,
                           const ReadBack::Hooks& hooks = {}) {
    AlignedBuffer buffer(blockSize);
    return ReadBack(buffer.span()).verify(folder, "DCIM/A.mov", expected, hooks);
}

std::string hashText(std::uint64_t hash) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

std::string mismatchText(const Copied& file, std::string disk, std::int64_t block) {
    const auto start = static_cast<std::size_t>(block * file.blockBytes);
    const std::string_view bytes = std::string_view(disk).substr(start, static_cast<std::size_t>(file.blockBytes));
    return "HASH MISMATCH: block " + std::to_string(block) + " dest " +
           hashText(blockHash(bytes.data(), bytes.size())) + " != source " +
           hashText(file.blocks[static_cast<std::size_t>(block)]);
}

// The digest of the one full read stands in the failure, the block that is to blame beside it.
void expectMismatch(const ReadBack::Outcome& outcome, const Copied& file, const std::string& disk, std::int64_t block) {
    XXH64Stream whole;
    whole.update(disk.data(), disk.size());
    EXPECT_EQ(outcome.result.error,
              "HASH MISMATCH: dest " + hashText(whole.digest()) + " != source " + *file.hashes.xxh64Hex());
    ASSERT_EQ(outcome.wrong.size(), 1U);
    EXPECT_EQ(outcome.wrong[0].number, block);
}

TEST(ReadBack, VerifiesWhatIsRightAndFindsEverySingleFlippedBit) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{blockSize}, std::size_t{blockSize} + 1,
                                   std::size_t{3 * blockSize} - 1}) {
        const test::TempFolder card;
        const Copied file(card.path(), size);
        std::int64_t progress = 0;
        const auto good = readBack(card.path(), file.expected(), {{}, [&](std::int64_t n) { progress += n; }});
        EXPECT_EQ(good.result, (DestFileResult{FileState::verified, std::nullopt})) << size;
        EXPECT_EQ(good.xxh128, file.hashes.xxh128);
        EXPECT_EQ(progress, static_cast<std::int64_t>(size));
        for (const std::size_t at : {std::size_t{0}, size / 2, size - 1}) {
            if (size == 0)
                continue;
            flipBit(card / "DCIM/A.mov", static_cast<std::int64_t>(at), 3);
            const auto bad = readBack(card.path(), file.expected());
            EXPECT_EQ(bad.result.state, FileState::failed);
            expectMismatch(bad, file, test::FileTree::read(card / "DCIM/A.mov"),
                           static_cast<std::int64_t>(at) / blockSize);
            EXPECT_FALSE(bad.xxh128);
            flipBit(card / "DCIM/A.mov", static_cast<std::int64_t>(at), 3);
        }
    }
}

TEST(ReadBack, TellsFailuresInItsOwnWords) {
    const test::TempFolder card;
    const Copied file(card.path(), 100'000);
    ReadBack::Expected noBlocks = file.expected();
    noBlocks.blocks = {};
    EXPECT_EQ(readBack(card.path(), noBlocks).result.state, FileState::verified);
    noBlocks.xxh64 = 1;
    EXPECT_EQ(readBack(card.path(), noBlocks).result.error,
              "HASH MISMATCH: dest " + *file.hashes.xxh64Hex() + " != source 0000000000000001");
    ReadBack::Expected noSource = file.expected();
    noSource.xxh64.reset();
    EXPECT_EQ(readBack(card.path(), noSource).result.error,
              "HASH MISMATCH: dest " + *file.hashes.xxh64Hex() + " != source -");
    ReadBack::Expected longer = file.expected();
    longer.size += 7;
    EXPECT_EQ(readBack(card.path(), longer).result.error, "size mismatch: 100000 != 100007");
    EXPECT_EQ(readBack(card.path(), file.expected(), {[] { return true; }, {}}).result,
              (DestFileResult{FileState::written, std::nullopt}));
    std::filesystem::remove(card / "DCIM/A.mov");
    std::filesystem::create_symlink("/etc/passwd", card / "DCIM/A.mov");
    const auto link = readBack(card.path(), file.expected());
    EXPECT_EQ(link.result.state, FileState::failed);
    EXPECT_TRUE(link.result.error->starts_with("verify: open ")) << *link.result.error;
}

// Every length around the pieces, with any memory: the same bytes in the same order, to the true end of the file, and
// an end by an exception leaves nobody writing.
TEST(ReadAhead, GivesTheBytesInOrderWhateverTheSizes) {
    const test::TempFolder folder;
    constexpr std::int64_t mib = 1 << 20;
    AlignedBuffer memory(4 * mib);
    for (const std::int64_t size :
         {std::int64_t{0}, std::int64_t{1}, std::int64_t{8192}, mib, mib + 1, 2 * mib, 5 * mib - 4096, 9 * mib + 77}) {
        const std::string content = test::FileTree::bytes(7, static_cast<std::size_t>(size));
        test::FileTree::write(folder / "f", content);
        for (const std::size_t room : {std::size_t{4096}, std::size_t{12288}, std::size_t{4 * mib}}) {
            ReadAhead reader(memory.span().first(room));
            for (const std::int64_t expected : {size, size / 2, size + 5000}) { // it shrank or grew meanwhile
                UncachedReader file(folder / "f");
                std::string seen;
                const auto take = [&](std::span<const std::byte> bytes) {
                    seen.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
                };
                EXPECT_EQ(reader.read(file, expected, take), size);
                EXPECT_TRUE(seen == content) << size << " in " << room;
            }
            UncachedReader file(folder / "f");
            if (size > 0) {
                EXPECT_THROW(reader.read(file, size, [](auto) { throw Cancelled(); }), Cancelled);
            }
        }
    }
}

class ReadBackOnFaultyDisk : public ::testing::Test {
protected:
    void SetUp() override { VELMORA_NEEDS(FaultDisk::unavailable()); }
};

TEST_F(ReadBackOnFaultyDisk, NamesTheBlocksAlsoWhenTheSecondReadFailsOrGivesAThirdAnswer) {
    FaultDisk disk;
    const Copied file(disk.root(), 5 * blockSize);
    const std::int64_t before = disk.count("read");
    readBack(disk.root(), file.expected());
    const FaultDisk::At second{.ops = "read", .skip = disk.count("read") - before, .times = 0, .pattern = "*A.mov"};
    flipBit(disk.root() + "/DCIM/A.mov", 3 * blockSize);
    for (const bool readable : {false, true}) {
        readable ? disk.flip(second) : disk.fail(EIO, second);
        const auto outcome = readBack(disk.root(), file.expected());
        ASSERT_GT(disk.hits(), 0);
        EXPECT_TRUE(outcome.result.error->starts_with("HASH MISMATCH: dest ")) << *outcome.result.error;
        ASSERT_EQ(outcome.wrong.size(), 1U);
        EXPECT_EQ(outcome.wrong[0].number, 3);
        EXPECT_EQ(outcome.wrong[0].changing, readable);
        disk.clear();
    }
}

TEST_F(ReadBackOnFaultyDisk, ReadsTheWrongBlocksOnceMoreAndNoOthers) {
    FaultDisk disk;
    const Copied file(disk.root(), 4 * blockSize);
    struct {
        const char* what;
        std::int64_t times;
        FileState state;
        std::size_t unstable;
    } cases[] = {{"one slip", 1, FileState::verified, 1}, {"always wrong", 0, FileState::failed, 0}};
    for (const auto& c : cases) {
        BlockVerifier verifier(file.manifest());
        disk.flip({.ops = "read", .times = c.times, .pattern = "*A.mov"}, 0);
        std::int64_t read = 0;
        const auto done =
            BlockReads::complete(disk.root() + "/DCIM/A.mov", verifier, {{}, {}, [&](std::int64_t n) { read += n; }});
        EXPECT_EQ(BlockReads::result(verifier, done.outcome).state, c.state) << c.what;
        EXPECT_EQ(verifier.unstableBlocks().size(), c.unstable) << c.what;
        EXPECT_LE(read, c.times == 1 ? 6 * blockSize : 8 * blockSize) << c.what;
        EXPECT_GT(read, 4 * blockSize) << c.what;
        disk.clear();
    }
}

TEST(BlockReads, ReadsOnlyWhatIsOpen) {
    const test::TempFolder card;
    const Copied file(card.path(), 4 * blockSize + 100);
    BlockVerifier verifier(file.manifest());
    const auto all = std::as_bytes(std::span(file.content));
    verifier.feed(0, all.first(blockSize));
    verifier.feed(2 * blockSize, all.subspan(2 * blockSize, blockSize));
    std::vector<std::int64_t> reads;
    const BlockReads::Hooks hooks{{}, {}, [&](std::int64_t n) { reads.push_back(n); }};
    EXPECT_EQ(BlockReads::complete(card.path(), "DCIM/A.mov", verifier, hooks).outcome, BlockOutcome::verified());
    EXPECT_EQ(reads, (std::vector<std::int64_t>{blockSize, blockSize, 100}));
    std::filesystem::remove(card / "DCIM/A.mov"); // nothing is open: the file is not even looked at
    const auto again = BlockReads::complete(card.path(), "DCIM/A.mov", verifier, hooks);
    EXPECT_EQ(again.outcome, BlockOutcome::verified());
    EXPECT_FALSE(again.throughCache);
}

TEST(BlockReads, TakesBlockSizesThatNoDiskReadsInOnePiece) {
    for (const std::int64_t block : {1L, 1000L, 4095L, 4097L, 12'288L, 70'000L, std::int64_t{1} << 40}) {
        const std::size_t size = block == 1 ? 300 : 200'001;
        const test::TempFolder card;
        const Copied file(card.path(), size, block);
        BlockVerifier verifier(file.manifest());
        EXPECT_EQ(BlockReads::complete(card.path(), "DCIM/A.mov", verifier, {}).outcome, BlockOutcome::verified())
            << block;
        const auto at = static_cast<std::int64_t>(size) - 2;
        flipBit(card / "DCIM/A.mov", at);
        BlockVerifier second(file.manifest());
        EXPECT_EQ(BlockReads::complete(card.path(), "DCIM/A.mov", second, {}).outcome,
                  BlockOutcome::mismatch(at / block))
            << block;
        const auto card2 = BlockReads::readCardBlock(opening(card, "DCIM/A.mov"), 0, block);
        ASSERT_TRUE(card2);
        EXPECT_EQ(*card2 == file.blocks[0], at / block != 0) << block;
    }
}

TEST(BlockReads, SaysWhatIsWrong) {
    const test::TempFolder card;
    const Copied file(card.path(), 3 * blockSize);
    const std::string path = card / "DCIM/A.mov";
    flipBit(path, blockSize + 5);
    flipBit(path, 2 * blockSize);
    BlockVerifier wrong(file.manifest());
    const auto found = BlockReads::complete(path, wrong, {});
    EXPECT_EQ(*BlockReads::result(wrong, found.outcome).error, mismatchText(file, test::FileTree::read(path), 1));
    EXPECT_TRUE(wrong.unstableBlocks().empty());

    for (const std::int64_t size : {2 * blockSize, 3 * blockSize + 1}) {
        std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
        BlockVerifier other(file.manifest());
        const auto length = BlockReads::complete(path, other, {});
        EXPECT_EQ(*BlockReads::result(other, length.outcome).error,
                  "size mismatch: " + std::to_string(size) + " != 196608");
    }
    BlockVerifier stopped(file.manifest());
    int blocks = 0;
    EXPECT_THROW(BlockReads::complete(path, stopped, {[&] { return ++blocks < 2; }, {}, {}}), Cancelled);
    EXPECT_EQ(BlockReads::result(stopped, stopped.finish()).error.has_value(), true); // the length is known already
    EXPECT_THROW(BlockReads::complete(card / "none", stopped, {}), IOError);
    EXPECT_THROW(BlockReads::complete(card.path(), "../x", stopped, {}), IOError);
    BlockVerifier monstrous({std::int64_t{3} << 30, std::int64_t{2} << 30, {1, 2}});
    EXPECT_THROW(BlockReads::complete(path, monstrous, {}), IOError); // no memory is asked for
    EXPECT_EQ(BlockReads::readCardBlock(opening(card, "none"), 0, blockSize), std::nullopt);
    EXPECT_EQ(BlockReads::readCardBlock(opening(card, "DCIM/A.mov"), 99, blockSize), blockHash(nullptr, 0));
}

TEST(CacheProbe, DrivesAFileOutOfMemoryOrSaysThatItStays) {
    ASSERT_FALSE(CacheProbe::blind());
    const test::TempFolder disk;
    test::FileTree::write(disk / "f", std::string(300'000, 'x'));
    EXPECT_GT(CacheProbe::residentPages(disk / "f")->resident, 0);
    EXPECT_TRUE(CacheProbe::readsFromDisk(disk / "f"));
    EXPECT_EQ(CacheProbe::residentPages(disk / "f")->resident, 0);
    test::FileTree::write(disk / "empty", "");
    EXPECT_TRUE(CacheProbe::readsFromDisk(disk / "empty"));
    EXPECT_FALSE(CacheProbe::readsFromDisk(disk / "none"));

    const std::string memory = "/dev/shm/velmora-probe-" + std::to_string(getpid());
    const Copied file(memory, 100'000); // lives in memory and nowhere else
    EXPECT_FALSE(CacheProbe::readsFromDisk(memory + "/DCIM/A.mov"));
    const auto outcome = readBack(memory, file.expected());
    EXPECT_EQ(outcome.result.state, FileState::verified);
    EXPECT_TRUE(outcome.throughCache);
    BlockVerifier verifier(file.manifest());
    EXPECT_TRUE(BlockReads::complete(memory, "DCIM/A.mov", verifier, {}).throughCache);
    EXPECT_EQ(CacheProbe::problem(memory), "the check of reads past the cache did not pass — verified by reading back");
    EXPECT_TRUE(std::filesystem::is_empty(memory + "/_REPORT"));
    std::filesystem::remove_all(memory);
}

TEST(CacheProbe, FindsTheObstaclesOfADestination) {
    const test::TempFolder disk;
    EXPECT_EQ(CacheProbe::problem(disk.path()), std::nullopt);
    EXPECT_TRUE(std::filesystem::is_empty(disk / "_REPORT"));
    std::filesystem::remove(disk / "_REPORT");
    test::FileTree::write(disk / "_REPORT", "in the way");
    const std::string reason = CacheProbe::problem(disk.path()).value_or("");
    EXPECT_TRUE(reason.starts_with("cannot check reads past the cache (mkdir ")) << reason;
    EXPECT_TRUE(reason.ends_with(") — verified by reading back")) << reason;
}

TEST(CardVerdict, SaysWhereADefectArose) {
    const struct {
        std::optional<std::uint64_t> card;
        std::set<std::uint64_t> disks;
        std::string_view begins;
    } cases[] = {
        {std::nullopt, {7}, "could not read the card again (no longer in the reader?) — insert it"},
        {1, {7}, "the card now gives the recorded data: the defect arose while writing to the disks."},
        {7, {7}, "the card now gives the same data as the disks: the card was probably misread"},
        {7, {7, 8}, "the card now gives data different from the copy and from the disks: the card or the reader"},
        {9, {7}, "the card now gives data different from the copy and from the disks: the card or the reader"},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(CardVerdict::text(c.card, 1, c.disks).starts_with(c.begins)) << c.begins;
}

TEST(CardVerdict, AsksTheCardForThreeBlocksAndCountsTheRest) {
    std::vector<CardVerdict::SharedMismatch> wrong;
    for (std::int64_t block = 0; block < 5; ++block)
        wrong.push_back({block, 1, {7}, {"RAID", "SHUTTLE"}});
    int reads = 0;
    const auto card = [&](std::int64_t) { return ++reads, std::optional<std::uint64_t>(1); };
    const auto five = CardVerdict::notes("a.mov", wrong, card);
    ASSERT_EQ(five.size(), 4U);
    EXPECT_EQ(reads, 3);
    EXPECT_EQ(five[2],
              "a.mov: block 2 mismatches the same way on RAID, SHUTTLE — the card now gives the recorded data: "
              "the defect arose while writing to the disks.");
    EXPECT_EQ(five[3],
              "a.mov: 2 more blocks mismatch the same way on several destinations (the card was not read again "
              "for them).");
    const auto four = CardVerdict::notes("a.mov", std::span(wrong).first(4), {});
    EXPECT_EQ(four[3], "a.mov: 1 more block mismatches the same way on several destinations (the card was not read "
                       "again for it).");
    EXPECT_NE(four[0].find("could not read the card again"), std::string::npos);
}

} // namespace
} // namespace velmora
