#include "cli/LiveLine.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "cli/TerminalText.h"
#include "job/JobProgress.h"
#include "job/JobWords.h"

#include <algorithm>
#include <fmt/format.h>

namespace velmora::LiveLine {

namespace {

using Phase = JobStatus::Phase;

constexpr std::size_t longestDiskName = 16;
constexpr std::size_t shortestFileName = 10; // below that the name of the file says nothing

std::int64_t doneBytes(const JobStatus& status) {
    if (status.phase != Phase::verifying || status.verifyDoneByDest.empty())
        return status.copy->readBytes;
    return *std::ranges::min_element(status.verifyDoneByDest); // the slowest disk decides
}

std::string amount(const JobStatus& status) {
    const auto& copy = *status.copy;
    std::string text;
    if (copy.totalBytes > 0)
        text += fmt::format(" {:.0f} %", std::min(100.0, 100.0 * static_cast<double>(doneBytes(status)) /
                                                             static_cast<double>(copy.totalBytes)));
    if (status.phase == Phase::copying && copy.totalFiles > 0)
        text += fmt::format("  {}/{} files", std::min(copy.fileIndex + 1, copy.totalFiles), copy.totalFiles);
    if (copy.errors > 0)
        text += fmt::format("  {}", counted(copy.errors, "error", "errors"));
    return text;
}

std::string rates(const JobStatus& status, const JobProgress& progress, const std::vector<std::string>& roots) {
    std::vector<std::string> parts;
    if (status.phase == Phase::copying)
        parts.push_back(fmt::format("card {:.0f}", progress.readRate() / 1e6));
    const auto names = diskNames(roots);
    for (std::size_t i = 0; i < progress.destRates().size(); ++i)
        parts.push_back(fmt::format("{} {:.0f}", i < names.size() ? names[i] : std::to_string(i + 1),
                                    progress.destRates()[i] / 1e6));
    return parts.empty() ? "" : "  " + join(parts, ", ") + " MB/s";
}

std::string fileName(const JobStatus& status) {
    const auto& copy = *status.copy;
    if (status.phase == Phase::verifying)
        return copy.verifyingFiles.empty() ? "" : copy.verifyingFiles.front();
    return status.phase == Phase::copying ? copy.currentFile : "";
}

} // namespace

std::vector<std::string> diskNames(const std::vector<std::string>& roots) {
    std::vector<std::string> names;
    for (const auto& root : roots)
        names.push_back(TerminalText::fitMiddle(RelativePath::name(root), longestDiskName));
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i].empty() || std::ranges::count(names, names[i]) > 1) {
            // Two alike tell nothing apart: all become numbers, in the order in which they were given.
            for (std::size_t k = 0; k < names.size(); ++k)
                names[k] = std::to_string(k + 1);
            break;
        }
    return names;
}

std::string compose(const JobStatus& status, const JobProgress& progress, const std::vector<std::string>& roots,
                    std::size_t columns) {
    if (status.phase == Phase::waiting)
        return "Checking the card and the disks";
    std::string line = JobWords::statusText(status);
    if (!status.copy)
        return TerminalText::fit(line, columns);
    const bool moving = !status.pauseHeld && (status.phase == Phase::copying || status.phase == Phase::verifying);
    if (moving || status.paused)
        line += amount(status);
    if (moving) {
        line += rates(status, progress, roots);
        if (const auto left = progress.eta())
            line += fmt::format("  {} left", JobWords::etaText(*left));
    }
    const std::size_t used = TerminalText::width(line) + 3; // two blanks, and the last cell that stays free
    if (const auto name = fileName(status); !name.empty() && used + shortestFileName <= columns)
        line += "  " + TerminalText::fitMiddle(RelativePath::name(name), columns - used);
    return TerminalText::fit(line, columns);
}

} // namespace velmora::LiveLine
