#include "verify/VerifyNotes.h"

#include "blocks/BlockVerifier.h"
#include "blocks/CardVerdict.h"
#include "verify/VerifyFiles.h"

#include <algorithm>
#include <iterator>

namespace velmora {

std::vector<std::string>
verifyNotes(const VerifyFiles& files, const std::vector<std::string>& disks,
            const std::function<std::optional<std::uint64_t>(std::size_t file, std::int64_t block)>& cardBlock) {
    std::vector<std::string> notes;
    for (std::size_t file = 0; file < files.files().size(); ++file) {
        const std::string& path = files.files()[file].path;
        CardVerdict::FileMismatches mismatches;
        for (std::size_t d = 0; d < disks.size(); ++d) {
            const auto verifier = files.existing(d, file);
            if (!verifier)
                continue;
            const auto wrong = verifier->wrongBlocks();
            for (const auto& [block, hash] : wrong)
                mismatches.add(block, verifier->manifest().blocks[static_cast<std::size_t>(block)], hash, disks[d]);
            std::vector<std::int64_t> unstable = verifier->unstableBlocks();
            std::erase_if(unstable, [&](std::int64_t block) { return wrong.contains(block); });
            if (!unstable.empty())
                notes.push_back(CardVerdict::unstable(path, disks[d], unstable));
        }
        std::function<std::optional<std::uint64_t>(std::int64_t)> readCard;
        if (cardBlock)
            readCard = [&cardBlock, file](std::int64_t block) { return cardBlock(file, block); };
        std::ranges::move(CardVerdict::notes(path, mismatches.onSeveralDisks(), readCard), std::back_inserter(notes));
    }
    const std::vector<std::int64_t> cached = files.cachedReads();
    for (std::size_t d = 0; d < disks.size(); ++d)
        if (cached[d] > 0)
            notes.push_back(CardVerdict::throughCache(disks[d], cached[d]));
    return notes;
}

} // namespace velmora
