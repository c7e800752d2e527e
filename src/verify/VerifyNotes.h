#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class VerifyFiles;

// What a finished verification has to say besides the failures of files: reads that changed their answer, blocks that
// are wrong on several disks and what the card says about them, and disks whose data may have come from memory.
// `disks` are their names, `cardBlock` may be empty.
std::vector<std::string>
verifyNotes(const VerifyFiles& files, const std::vector<std::string>& disks,
            const std::function<std::optional<std::uint64_t>(std::size_t file, std::int64_t block)>& cardBlock);

} // namespace velmora
