#include "blocks/CardVerdict.h"

#include "base/Text.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace velmora::CardVerdict {

std::string_view text(std::optional<std::uint64_t> card, std::uint64_t recorded, const std::set<std::uint64_t>& disks) {
    if (!card) {
        return "could not read the card again (no longer in the reader?) — insert it and start Copy again.";
    }
    if (*card == recorded) {
        return "the card now gives the recorded data: the defect arose while writing to the disks.";
    }
    if (disks.size() == 1 && *disks.begin() == *card) {
        return "the card now gives the same data as the disks: the card was probably misread during the copy.";
    }
    return "the card now gives data different from the copy and from the disks: the card or the reader is probably "
           "faulty.";
}

std::string note(std::string_view file, std::int64_t block, std::span<const std::string> disks,
                 std::string_view verdict) {
    return fmt::format("{}: block {} mismatches the same way on {} — {}", file, block, fmt::join(disks, ", "), verdict);
}

std::string moreBlocks(std::string_view file, std::size_t count) {
    if (count == 1) {
        return fmt::format("{}: 1 more block mismatches the same way on several destinations (the card was not read "
                           "again for it).",
                           file);
    }
    return fmt::format("{}: {} more blocks mismatch the same way on several destinations (the card was not read again "
                       "for them).",
                       file, count);
}

std::string differs(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks) {
    constexpr std::size_t most = 20;
    const std::size_t shown = std::min(blocks.size(), most);
    const std::string more = blocks.size() > shown ? fmt::format(" and {} more", blocks.size() - shown) : "";
    return fmt::format("{} on {}: {} {}{} {} from the source.", file, disk, blocks.size() == 1 ? "block" : "blocks",
                       fmt::join(blocks.first(shown), ", "), more, blocks.size() == 1 ? "differs" : "differ");
}

std::string unstable(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks) {
    return fmt::format("Unstable read: {} on {} (block {}) gave different data in one read — the next read matched the "
                       "card.",
                       file, disk, fmt::join(blocks, ", "));
}

std::string changing(std::string_view file, std::string_view disk, std::span<const std::int64_t> blocks) {
    return fmt::format("Unstable read: {} on {} (block {}) gave different data in two reads — neither matched the "
                       "card.",
                       file, disk, fmt::join(blocks, ", "));
}

std::string throughCache(std::string_view disk, std::int64_t files) {
    return fmt::format(
        "Verified by reading through the macOS cache: {}, {} — the file stayed in memory and could not be "
        "evicted, so the data may have come from memory instead of the disk.",
        disk, countedFiles(files));
}

void FileMismatches::add(std::int64_t block, std::uint64_t recorded, std::uint64_t onDisk, const std::string& disk) {
    SharedMismatch& mismatch = blocks_[block];
    mismatch.block = block;
    mismatch.recorded = recorded;
    mismatch.diskHashes.insert(onDisk);
    mismatch.disks.push_back(disk);
}

std::vector<SharedMismatch> FileMismatches::onSeveralDisks() const {
    std::vector<SharedMismatch> found;
    for (const auto& [block, mismatch] : blocks_)
        if (mismatch.disks.size() > 1)
            found.push_back(mismatch);
    return found;
}

std::vector<std::string> notes(std::string_view file, std::span<const SharedMismatch> mismatches,
                               const std::function<std::optional<std::uint64_t>(std::int64_t block)>& readCard) {
    std::vector<std::string> all;
    const std::size_t told = std::min(mismatches.size(), maxBlocksPerFile);
    for (const SharedMismatch& wrong : mismatches.first(told)) {
        const auto card = readCard ? readCard(wrong.block) : std::nullopt;
        all.push_back(note(file, wrong.block, wrong.disks, text(card, wrong.recorded, wrong.diskHashes)));
    }
    if (mismatches.size() > told) {
        all.push_back(moreBlocks(file, mismatches.size() - told));
    }
    return all;
}

} // namespace velmora::CardVerdict
