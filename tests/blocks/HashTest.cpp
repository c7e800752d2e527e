#include "base/Hex.h"
#include "blocks/C4.h"
#include "blocks/HashAlgo.h"
#include "blocks/MultiHasher.h"

namespace velmora {
namespace {

using test::FileTree::bytes;

const std::byte* data(const std::string& text) { return reinterpret_cast<const std::byte*>(text.data()); }

std::string digest(std::string_view algorithm, const std::string& text) {
    const auto hash = HashAlgo::make(algorithm);
    hash->update(data(text), text.size() / 3);
    hash->update(data(text) + text.size() / 3, text.size() - text.size() / 3);
    return hash->value();
}

TEST(HashAlgo, GivesThePublishedDigests) {
    const struct {
        std::string_view algorithm, of, is;
    } cases[] = {
        {"xxh64", "", "ef46db3751d8e999"},
        {"xxh64", "abc", "44bc2cf5ad770999"},
        {"xxh3", "", "2d06800538d394c2"},
        {"xxh3", "abc", "78af5f94892f3950"},
        {"xxh128", "", "99aa06d3014798d86001c324468d497f"},
        {"xxh128", "abc", "06b05ab6733a618578af5f94892f3950"},
        {"md5", "", "d41d8cd98f00b204e9800998ecf8427e"},
        {"md5", "abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"sha1", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"c4", "", "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT"},
        {"c4", "alfa", "c43zYcLni5LF9rR4Lg4B8h3Jp8SBwjcnyyeh4bc6gTPHndKuKdjUWx1kJPYhZxYt3zV6tQXpDs2shPsPYjgG81wZM1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(digest(c.algorithm, std::string(c.of)), c.is) << c.algorithm << " of '" << c.of << "'";
}

TEST(HashAlgo, KnowsItsNamesAndNoOthers) {
    for (const std::string_view name : HashAlgo::known)
        EXPECT_NE(HashAlgo::make(name), nullptr) << name;
    for (const std::string_view name : {"XXH64", "sha256", "", "xxh32"})
        EXPECT_EQ(HashAlgo::make(name), nullptr) << name;
    EXPECT_EQ(HashAlgo::label("XXH128"), "xxHash128");
    EXPECT_EQ(HashAlgo::label("c4"), "C4");
    EXPECT_EQ(HashAlgo::label("Whirlpool"), "Whirlpool");
    EXPECT_TRUE(HashAlgo::equal("xxh128", "06B05AB6", "06b05ab6"));
    EXPECT_FALSE(HashAlgo::equal("C4", "c4Aa", "c4aa"));
    EXPECT_FALSE(HashAlgo::equal("md5", "a", "ab"));
}

TEST(C4, EncodesTheWholeRangeOfNumbers) {
    std::array<std::uint8_t, 64> number{};
    EXPECT_EQ(C4::fromSHA512(number), "c4" + std::string(88, '1'));
    number[63] = 58;
    EXPECT_EQ(C4::fromSHA512(number), "c4" + std::string(86, '1') + "21");
    number = {1};
    EXPECT_EQ(C4::fromSHA512(number),
              "c412AFv15MNPuA84RmU66xw2uMzGipcVxNpzAffoacGVvjFue3CBmf633fAWuiP9cwL9C3z3CJiGgRSFjJfeEcA6QX");
    number.fill(0xff);
    EXPECT_EQ(C4::fromSHA512(number),
              "c467rpwLCuS5DGA8KGZXKsVQ7dnPb9goRLoKfgGbLfQg9WoLUgNY77E2jT11fem3coV9nAkguBACzrU1iyZM4B8roQ");
}

using Result = std::pair<FileHashes, std::vector<std::uint64_t>>;

Result hashInPieces(const std::string& content, std::int64_t blockSize, std::size_t piece) {
    MultiHasher hasher(HashKinds::both, blockSize, true);
    hasher.update(data(content), 0);
    hasher.update(data(content), -5);
    for (std::size_t at = 0; at < content.size(); at += piece)
        hasher.update(data(content) + at, static_cast<std::int64_t>(std::min(piece, content.size() - at)));
    return hasher.finish();
}

TEST(MultiHasher, HashesEveryBlockAndTheWholeHoweverTheBytesArrive) {
    constexpr std::int64_t block = 1000;
    for (const std::size_t size : {0U, 1U, 999U, 1000U, 1001U, 2000U, 3100U}) {
        const std::string content = bytes(size, size);
        std::vector<std::uint64_t> blocks;
        for (std::size_t at = 0; at < size; at += block)
            blocks.push_back(blockHash(content.data() + at, std::min<std::size_t>(block, size - at)));
        for (const std::size_t piece : {1U, 7U, 999U, 1000U, 1001U, 5000U}) {
            const auto [hashes, found] = hashInPieces(content, block, piece);
            EXPECT_EQ(found, blocks) << size << " bytes in pieces of " << piece;
            EXPECT_EQ(hashes.xxh64Hex(), digest("xxh64", content));
            EXPECT_EQ(hashes.xxh128, digest("xxh128", content));
            EXPECT_EQ(hashes.md5Hex(), digest("md5", content));
        }
    }
}

TEST(MultiHasher, ComputesOnlyWhatWasAskedFor) {
    MultiHasher hasher(HashKinds::xxh64, 4096, false);
    const auto [hashes, blocks] = hasher.finish();
    EXPECT_EQ(hashes.xxh64Hex(), "ef46db3751d8e999");
    EXPECT_TRUE(blocks.empty());
    EXPECT_FALSE(hashes.md5 || hashes.xxh128);
    EXPECT_THROW(MultiHasher(HashKinds::xxh64, 0, false), std::invalid_argument);
}

} // namespace
} // namespace velmora
