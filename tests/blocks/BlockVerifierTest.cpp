#include "blocks/BlockVerifier.h"
#include "blocks/HashStreams.h"

#include <numeric>
#include <random>

namespace velmora {
namespace {

using State = BlockVerifier::State;

// A file of `size` bytes in blocks of 1000, and what a disk may give for it.
struct File {
    explicit File(std::size_t size) : content(test::FileTree::bytes(size + 1, size)) {
        manifest.size = static_cast<std::int64_t>(size);
        manifest.blockSize = 1000;
        for (std::size_t at = 0; at < size; at += 1000)
            manifest.blocks.push_back(blockHash(content.data() + at, std::min<std::size_t>(1000, size - at)));
    }
    void feed(BlockVerifier& verifier, std::int64_t from, std::int64_t to) const { feed(verifier, from, to, content); }
    static void feed(BlockVerifier& verifier, std::int64_t from, std::int64_t to, const std::string& bytes) {
        const auto all = std::as_bytes(std::span(bytes));
        verifier.feed(from, all.subspan(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from)));
    }
    std::string withFlip(std::size_t at) const {
        std::string bad = content;
        bad[at] ^= 4;
        return bad;
    }
    std::string content;
    BlockManifest manifest;
};

using Blocks = std::vector<std::int64_t>;

// One block; each letter is a step: g and b whole reads, good or bad (c: bad in another way); p a good piece, q the
// other piece of the block, x a bad first piece.
TEST(BlockVerifier, SettlesABlockByWhatWasReadLast) {
    const File file(1000);
    const struct {
        const char* steps;
        State state;
        std::int64_t verified;
        bool unstable;
    } cases[] = {
        {"", State::missing, 0, false},       {"p", State::partial, 0, false},
        {"pq", State::verified, 1000, false}, {"qp", State::verified, 1000, false},
        {"xq", State::mismatch, 0, false},    {"xpq", State::verified, 1000, false},
        {"g", State::verified, 1000, false},  {"gg", State::verified, 1000, false},
        {"b", State::mismatch, 0, false},     {"bb", State::mismatch, 0, false},
        {"bc", State::mismatch, 0, false},    {"bg", State::verified, 1000, true},
        {"gb", State::mismatch, 0, true},     {"gbg", State::verified, 1000, true},
        {"bgb", State::mismatch, 0, true},    {"gxq", State::verified, 1000, false},
        {"bpq", State::mismatch, 0, false},   {"pb", State::mismatch, 0, false},
        {"xg", State::verified, 1000, false}, {"xgq", State::verified, 1000, false},
    };
    for (const auto& c : cases) {
        BlockVerifier verifier(file.manifest);
        for (const char step : std::string_view(c.steps)) {
            const bool bad = step == 'b' || step == 'c' || step == 'x';
            const std::string bytes = bad ? file.withFlip(step == 'c' ? 901 : 10) : file.content;
            const std::int64_t from = step == 'q' ? 400 : 0;
            const std::int64_t to = step == 'p' || step == 'x' ? 400 : 1000;
            File::feed(verifier, from, to, bytes);
        }
        EXPECT_EQ(verifier.state(0), c.state) << c.steps;
        EXPECT_EQ(verifier.verifiedBytes(), c.verified) << c.steps;
        EXPECT_EQ(verifier.unstableBlocks(), c.unstable ? Blocks{0} : Blocks{}) << c.steps;
        const std::string wrong = file.withFlip(std::string_view(c.steps).ends_with('c') ? 901 : 10);
        EXPECT_EQ(verifier.diskHash(0),
                  c.state == State::mismatch ? std::optional(blockHash(wrong.data(), wrong.size())) : std::nullopt)
            << c.steps;
    }
}

TEST(BlockVerifier, CompletesABlockExactlyWhenItsPiecesCoverIt) {
    const File file(2500);
    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        BlockVerifier verifier(file.manifest);
        std::vector<bool> seen(file.content.size());
        while (std::find(seen.begin(), seen.end(), false) != seen.end()) {
            const auto from = static_cast<std::int64_t>(random() % file.content.size());
            const auto to = std::min<std::int64_t>(2500, from + 1 + static_cast<std::int64_t>(random() % 700));
            file.feed(verifier, from, to);
            std::fill(seen.begin() + from, seen.begin() + to, true);
            for (std::int64_t block = 0; block < 3; ++block) {
                const auto end = std::min<std::int64_t>(2500, block * 1000 + 1000);
                const bool covered =
                    std::find(seen.begin() + block * 1000, seen.begin() + end, false) == seen.begin() + end;
                ASSERT_EQ(verifier.state(block) == State::verified, covered) << "round " << round;
            }
        }
        EXPECT_EQ(verifier.finish(), BlockOutcome::verified());
        EXPECT_EQ(verifier.verifiedBytes(), 2500);
    }
}

TEST(BlockVerifier, ForgetsThePiecesTouchedLongestAgo) {
    const File file(12'000);
    BlockVerifier verifier(file.manifest);
    for (std::int64_t block = 0; block < 8; ++block)
        file.feed(verifier, block * 1000, block * 1000 + 10);
    file.feed(verifier, 10, 20); // block 0 is fresh again: block 1 is now the oldest
    file.feed(verifier, 8000, 8010);
    EXPECT_EQ(verifier.state(1), State::missing);
    EXPECT_EQ(verifier.state(0), State::partial);
    file.feed(verifier, 1010, 2000); // the rest of block 1 does not complete it: its first bytes are lost
    EXPECT_EQ(verifier.state(1), State::partial);
    EXPECT_EQ(verifier.state(2), State::missing);
    file.feed(verifier, 1000, 2000);
    EXPECT_EQ(verifier.state(1), State::verified);
    file.feed(verifier, 20, 1000);
    EXPECT_EQ(verifier.state(0), State::verified);
}

TEST(BlockVerifier, ClipsCountsAndIgnoresWhatLiesOutside) {
    const File file(2500);
    BlockVerifier verifier(file.manifest);
    const std::string more = file.content + std::string(600, 'x');
    File::feed(verifier, 2000, 3100, more);
    EXPECT_EQ(verifier.state(2), State::verified);
    verifier.feed(-1, std::as_bytes(std::span(more)));
    verifier.feed(std::numeric_limits<std::int64_t>::max(), std::as_bytes(std::span(more)));
    verifier.feed(0, {});
    verifier.feedHash(3, 1);
    EXPECT_EQ(verifier.fedBytes(), 1100 + 3100);
    EXPECT_EQ(verifier.missingRanges(), (std::vector<ByteRange>{{0, 2000}}));
    EXPECT_EQ(verifier.finish(), BlockOutcome::incomplete());
}

TEST(BlockVerifier, ListsWhatIsOpenAsJoinedRanges) {
    const File file(5500);
    BlockVerifier verifier(file.manifest);
    file.feed(verifier, 1000, 2000);
    file.feed(verifier, 3000, 3500);
    File::feed(verifier, 4000, 5000, file.withFlip(4001));
    EXPECT_EQ(verifier.missingRanges(), (std::vector<ByteRange>{{0, 1000}, {2000, 3500}}));
}

TEST(BlockVerifier, JudgesLengthFirstThenTheLowestWrongBlock) {
    const File file(3000);
    BlockVerifier verifier(file.manifest);
    file.feed(verifier, 0, 1000);
    File::feed(verifier, 2000, 3000, file.withFlip(2999));
    File::feed(verifier, 1000, 2000, file.withFlip(1999));
    EXPECT_EQ(verifier.finish(), BlockOutcome::mismatch(1));
    verifier.observeLength(2999);
    verifier.observeLength(3000); // a later, right answer does not take the doubt away
    EXPECT_EQ(verifier.finish(), BlockOutcome::sizeDiffers(2999));

    BlockVerifier empty(File(0).manifest);
    EXPECT_FALSE(empty.lengthObserved());
    empty.observeLength(0);
    EXPECT_EQ(empty.finish(), BlockOutcome::verified());
}

TEST(BlockVerifier, RefusesBlocksThatDoNotCoverTheFile) {
    EXPECT_THROW(BlockVerifier({10, 4, {1, 2}}), std::invalid_argument);
    EXPECT_THROW(BlockVerifier({10, 0, {}}), std::invalid_argument);
    EXPECT_THROW(BlockVerifier({-1, 4, {}}), std::invalid_argument);
}

TEST(BlockVerifier, TakesReadersInAnyNumberAtOnce) {
    const File file(40'000);
    BlockVerifier verifier(file.manifest);
    std::vector<std::thread> readers;
    for (unsigned r = 0; r < 4; ++r)
        readers.emplace_back([&, r] {
            std::mt19937 random(r);
            for (int i = 0; i < 300; ++i) {
                const auto from = static_cast<std::int64_t>(random() % file.content.size());
                file.feed(verifier, from, std::min<std::int64_t>(40'000, from + 3000));
                (void)verifier.finish();
                (void)verifier.missingRanges();
            }
            for (std::int64_t block = r; block < 40; block += 4)
                file.feed(verifier, block * 1000, block * 1000 + 1000);
        });
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(verifier.finish(), BlockOutcome::verified());
    EXPECT_EQ(verifier.verifiedBytes(), 40'000);
    EXPECT_TRUE(verifier.unstableBlocks().empty());
}

} // namespace
} // namespace velmora
