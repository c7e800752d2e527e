#include "cli/LiveLine.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "cli/TerminalText.h"
#include "job/JobProgress.h"
#include "job/JobWords.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace velmora::LiveLine {

namespace {

using Phase = JobStatus::Phase;

constexpr std::size_t longestDiskName = 16;
constexpr std::size_t shortestFileName = 10; // below that the name of the file says nothing

std::string percent(double share) { return fmt::format(" {:.0f} %", std::floor(100 * share)); }

std::string amount(const JobStatus& status, const JobProgress& progress) {
    std::string text;
    if (const auto share = progress.share())
        text += percent(*share);
    else if (status.examining && status.verifyDone > 0)
        text += " " + formatBytes(status.verifyDone);
    if (!status.copy)
        return text;
    const auto& copy = *status.copy;
    if (status.phase == Phase::copying && copy.totalFiles > 0)
        text += fmt::format("  {}/{} files", std::min(copy.fileIndex + 1, copy.totalFiles), copy.totalFiles);
    if (copy.errors > 0)
        text += fmt::format("  {}", counted(copy.errors, "error", "errors"));
    return text;
}

std::string rates(const JobStatus& status, const JobProgress& progress, const std::vector<std::string>& roots) {
    const bool reading = status.examining || status.phase == Phase::verifying;
    std::vector<std::string> parts;
    if (!reading)
        parts.push_back(fmt::format("card {:.0f}", progress.readRate() / 1e6));
    const auto names = diskNames(roots);
    const auto shares = progress.destShares();
    for (std::size_t i = 0; i < progress.destRates().size(); ++i) {
        const std::string name = i < names.size() ? names[i] : std::to_string(i + 1);
        // Each disk is read at its own pace; while they are written they keep step with the card.
        const bool apart = reading && shares.size() > 1 && i < shares.size() && shares[i];
        parts.push_back(
            fmt::format("{}{} {:.0f}", name, apart ? percent(*shares[i]) : "", progress.destRates()[i] / 1e6));
    }
    return parts.empty() ? "" : "  " + join(parts, ", ") + " MB/s";
}

bool isAtClips(const JobStatus& status) { return status.phase == Phase::analyzing || status.phase == Phase::proxies; }

std::string clipAmount(const JobStatus& status) {
    std::string text = fmt::format(" {}/{}", status.clipIndex, status.clipCount);
    if (status.phase == Phase::proxies)
        text += percent(status.clipFraction);
    if (status.proxiesFailed > 0)
        text += fmt::format("  {} failed", status.proxiesFailed);
    if (status.contentWarnings > 0)
        text += fmt::format("  {}", counted(status.contentWarnings, "defect", "defects"));
    return text;
}

// How much of each disk is proved, while that goes on beside the clips.
std::string proved(const JobStatus& status, const std::vector<std::string>& roots) {
    if (!status.verifyInProxy || status.verifyTotal <= 0)
        return "";
    const auto names = diskNames(roots);
    std::vector<std::string> parts;
    for (std::size_t d = 0; d < status.verifyTotalByDest.size(); ++d)
        if (const auto total = static_cast<double>(status.verifyTotalByDest[d]); total > 0)
            parts.push_back((d < names.size() ? names[d] : std::to_string(d + 1)) +
                            percent(static_cast<double>(status.verifyDoneByDest[d]) / total));
    return parts.empty() ? "" : "  proved: " + join(parts, ", ");
}

std::string fileName(const JobStatus& status) {
    if (isAtClips(status))
        return status.clipName;
    if (!status.copy)
        return "";
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
            // Two short names are equal: all destinations are numbered, in the order in which they were given.
            for (std::size_t k = 0; k < names.size(); ++k)
                names[k] = std::to_string(k + 1);
            break;
        }
    return names;
}

std::string compose(const JobStatus& status, const JobProgress& progress, const std::vector<std::string>& roots,
                    std::size_t columns) {
    if (status.phase == Phase::waiting)
        return TerminalText::fit(
            JobWords::pauseText(status).value_or(status.examining.value_or("Checking the card and the disks")),
            columns);
    std::string line = status.examining && !status.paused ? *status.examining : JobWords::statusText(status);
    const bool works = status.copy && (status.phase == Phase::copying || status.phase == Phase::verifying);
    const bool moving = !status.pauseHeld && (works || status.examining);
    if (isAtClips(status))
        line += clipAmount(status);
    else if (moving || (status.paused && status.phase < Phase::analyzing))
        line += amount(status, progress);
    if (moving)
        line += rates(status, progress, roots);
    const bool isFinishing = status.phase == Phase::finishingVerification;
    if (isAtClips(status) || isFinishing)
        line += proved(status, roots);
    if (moving || ((isAtClips(status) || isFinishing) && !status.pauseHeld)) {
        if (const auto left = progress.eta())
            line += fmt::format("  {} left", JobWords::etaText(*left));
    }
    const std::size_t used = TerminalText::width(line) + 3; // two blanks, and the last cell that stays free
    if (const auto name = fileName(status); !name.empty() && used + shortestFileName <= columns)
        line += "  " + TerminalText::fitMiddle(RelativePath::name(name), columns - used);
    return TerminalText::fit(line, columns);
}

} // namespace velmora::LiveLine
