#include "base/Errors.h"

#include "base/Text.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace velmora {

namespace {

// In the order of the enumeration.
constexpr std::array<std::string_view, 32> preflightNames{
    "other",
    "chunkSize",
    "bufferCount",
    "date",
    "sourceNotFound",
    "noDestination",
    "duplicateDestination",
    "sourceIsOffload",
    "sourceUnreadable",
    "destinationNotFound",
    "destinationNotWritable",
    "destinationUnreadable",
    "sameVolumeAsSource",
    "sharedVolume",
    "emptySource",
    "noSpace",
    "noHashRecord",
    "noFilesToRead",
    "noReadAccess",
    "appendUnavailable",
    "appendNoReport",
    "appendNoMhl",
    "appendDiverged",
    "appendConflict",
    "appendMissingFile",
    "appendFailedFile",
    "appendOtherCard",
    "appendMhlDamaged",
    "appendBusy",
    "nothingNew",
    "repairNothing",
    "repairConflict",
};
static_assert(preflightNames.size() == static_cast<std::size_t>(PreflightCode::repairConflict) + 1);

std::string errorText(int code) {
    char buffer[256];
    // The GNU form returns the text, which need not be in the buffer.
    return strerror_r(code, buffer, sizeof buffer);
}

} // namespace

std::string_view name(PreflightCode code) noexcept { return preflightNames[static_cast<std::size_t>(code)]; }

IOError::IOError(std::string op, std::string path, int code)
    : std::runtime_error(op + " " + path + ": " + errorText(code) + " (errno " + std::to_string(code) + ")"),
      op_(std::move(op)), path_(std::move(path)), code_(code) {}

namespace {

// ffmpeg says "[mov @ 0x55d4…]", with an address that is another one in each run. The same failure reads the same.
std::string withoutAddresses(std::string line) {
    constexpr std::string_view mark = " @ 0x";
    for (std::size_t at = line.find(mark); at != std::string::npos; at = line.find(mark, at + 1)) {
        const std::size_t end = line.find_first_not_of("0123456789abcdef", at + mark.size());
        if (end != std::string::npos && line[end] == ']')
            line.erase(at, end - at);
    }
    return line;
}

// Tools talk at length; what counts stands at the end.
std::string toolFailure(const std::string& tool, int status, const std::string& message) {
    std::vector<std::string_view> lines = split(message, '\n', false);
    constexpr std::ptrdiff_t kept = 3;
    if (std::ssize(lines) > kept)
        lines.erase(lines.begin(), lines.end() - kept);
    std::string text = tool + " failed (exit " + std::to_string(status) + ")";
    for (std::size_t i = 0; i < lines.size(); ++i)
        text.append(i == 0 ? ": " : " | ").append(withoutAddresses(std::string(lines[i])));
    return text;
}

} // namespace

ToolError::ToolError(std::string tool, int status, std::string message)
    : std::runtime_error(toolFailure(tool, status, message)), tool_(std::move(tool)), status_(status),
      message_(std::move(message)) {}

} // namespace velmora
