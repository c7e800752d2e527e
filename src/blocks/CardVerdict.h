#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The words about a defect that shows on several disks. Did it arise on the card, in its reader or while writing? The
// card is read again to find out. There are also words for a block that gave two results in two reads.
namespace CardVerdict {

// Limits the blocks of one file that are described, and so the reads of the card for it.
inline constexpr std::size_t maxBlocksPerFile = 3;

// `card` is what the card gives now, absent when it could not be read; `disks` are the hashes that the disks gave.
std::string_view text(std::optional<std::uint64_t> card, std::uint64_t recorded, const std::set<std::uint64_t>& disks);

// "{file}: block {block} mismatches the same way on {disks} — {verdict}"
std::string note(std::string_view file, std::int64_t block, std::span<const std::string> disks,
                 std::string_view verdict);
// The blocks beyond `maxBlocksPerFile`, in one sentence.
std::string moreBlocks(std::string_view file, std::size_t count);
// "{file} on {disk}: block 3 differs from the source." for blocks that were wrong in both reads.
std::string differs(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks);
// "Unstable read: …" for blocks that ended matching.
std::string unstable(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks);

// "Unstable read: …" for blocks that were wrong both times, and not in the same way.
std::string changing(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks);

// Files of a disk could not be driven out of memory before they were read.
std::string throughCache(std::string_view disk, std::int64_t files);

// One block that is wrong on two or more disks.
struct SharedMismatch {
    std::int64_t block = 0;
    std::uint64_t recorded = 0;
    std::set<std::uint64_t> diskHashes;
    std::vector<std::string> disks; // display names
};
// The wrong blocks of one file, gathered disk by disk.
class FileMismatches {
public:
    void add(std::int64_t block, std::uint64_t recorded, std::uint64_t onDisk, const std::string& disk);
    std::vector<SharedMismatch> onSeveralDisks() const; // ascending

private:
    std::map<std::int64_t, SharedMismatch> blocks_;
};
// All notes for one file. `readCard` may be empty: the card is not there.
std::vector<std::string> notes(std::string_view file, std::span<const SharedMismatch> mismatches,
                               const std::function<std::optional<std::uint64_t>(std::int64_t block)>& readCard);

} // namespace CardVerdict

} // namespace velmora
