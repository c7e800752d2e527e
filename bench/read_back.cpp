// read_back FOLDER MIB COUNT: makes COUNT files of MIB each below FOLDER, then reads all of them in turns as a
// read-back does and plainly: one direct read of 16 MiB after another, nothing computed. Prints the medians in seconds.

#include "blocks/MultiHasher.h"
#include "blocks/ReadBack.h"
#include "platform/File.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace velmora;

namespace {

constexpr std::int64_t block = 16 << 20;
constexpr int rounds = 5;

double seconds(const std::function<void()>& work) {
    const auto began = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

} // namespace

int main(int count, char** arguments) {
    if (count != 4)
        return 2;
    const std::string folder = arguments[1];
    const std::int64_t size = std::atoll(arguments[2]) << 20;
    AlignedBuffer buffer(block);
    std::vector<FileHashes> hashes;
    for (int f = 0; f < std::atoi(arguments[3]); ++f) {
        UncachedWriter file(folder + "/" + std::to_string(f), UncachedWriter::Open::createOrTruncate,
                            CacheMode::direct);
        std::mt19937_64 random(static_cast<std::uint64_t>(f));
        MultiHasher hasher(HashKinds::xxh64, block, false);
        for (std::int64_t at = 0; at < size; at += block) {
            auto* words = reinterpret_cast<std::uint64_t*>(buffer.data());
            std::generate(words, words + block / 8, random);
            const auto piece = buffer.span().first(static_cast<std::size_t>(std::min(block, size - at)));
            hasher.update(piece.data(), static_cast<std::int64_t>(piece.size()));
            file.writeAt(piece, at);
        }
        file.flush();
        hashes.push_back(hasher.finish().first);
    }
    const auto name = [](std::size_t f) { return std::to_string(f); };
    const auto plainly = [&] {
        for (std::size_t f = 0; f < hashes.size(); ++f) {
            UncachedReader file(folder + "/" + name(f));
            for (std::int64_t at = 0; file.readAt(buffer.span(), at) == buffer.size(); at += block) {
            }
        }
    };
    bool good = true;
    const auto asReadBack = [&] {
        ReadBack reader(buffer.span());
        for (std::size_t f = 0; f < hashes.size(); ++f)
            good = reader.verify(folder, name(f), {size, hashes[f].xxh64, block, {}}, {}).result.state ==
                       FileState::verified &&
                   good;
    };
    std::vector<double> ours;
    std::vector<double> theirs;
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0)
            theirs.push_back(seconds(plainly));
        ours.push_back(seconds(asReadBack));
        if (round % 2 != 0)
            theirs.push_back(seconds(plainly));
    }
    std::ranges::sort(ours);
    std::ranges::sort(theirs);
    std::printf("%.4f %.4f\n", ours[rounds / 2], theirs[rounds / 2]);
    return good ? 0 : 1;
}
