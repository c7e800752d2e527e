#include "job/JobWords.h"

#include "base/Text.h"
#include "records/OffloadReport.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace velmora {

namespace {

using Phase = JobStatus::Phase;

// Up to its last report of the copy a job works through files, afterwards through clips.
bool isPostStage(Phase phase) { return phase > Phase::reporting && phase < Phase::done; }

bool isVerifying(const JobStatus& status) {
    if (status.phase == Phase::verifying || status.phase == Phase::finishingVerification)
        return true;
    return status.verifyInProxy && isPostStage(status.phase);
}

CardChip ejectChip(const JobStatus& status) {
    if (status.safeToEject)
        return {"Safe to eject", CardTone::ok};
    if (status.isFinished())
        return {"Do not eject", CardTone::error};
    return {"Do not eject yet", status.phase == Phase::waiting ? CardTone::waiting : CardTone::active};
}

CardChip formatChip(const JobStatus& status, bool defectsOpen) {
    if (status.safeToFormat && defectsOpen)
        return {"Safe to format after checking defects", CardTone::warning};
    if (status.safeToFormat)
        return {"Safe to format", CardTone::ok};
    if (status.isFinished())
        return {"Do not format", CardTone::error};
    if (isVerifying(status))
        return {"Verifying", CardTone::active};
    return {"Do not format yet", CardTone::waiting};
}

// The renderer's note for a clip that keeps its original instead of a proxy.
constexpr std::string_view lighterNote = "no proxy — the original is lighter";

struct ProxyCounts {
    std::int64_t done = 0;
    std::int64_t failed = 0;
    std::int64_t unsupported = 0;
    std::int64_t lighter = 0;
};

ProxyCounts countProxies(const OffloadReport& report) {
    ProxyCounts counts;
    for (const ClipEntry& clip : report.clips) {
        counts.done += clip.proxyStatus == ProxyStatus::done;
        counts.failed += clip.proxyStatus == ProxyStatus::failed;
        counts.unsupported += clip.proxyStatus == ProxyStatus::unsupported;
        counts.lighter += clip.proxyStatus == ProxyStatus::skipped && clip.proxyNote &&
                          std::string_view(*clip.proxyNote).starts_with(lighterNote);
    }
    return counts;
}

} // namespace

std::string_view name(JobStatus::Phase phase) noexcept {
    static constexpr std::array<std::string_view, 11> names{
        "waiting", "copying", "flushing", "verifying", "reporting", "analyzing", "proxies", "finishingVerification",
        "done",    "failed",  "cancelled"};
    return names[static_cast<std::size_t>(phase)];
}

std::string_view name(CardTone tone) noexcept {
    static constexpr std::array<std::string_view, 5> names{"waiting", "active", "ok", "warning", "error"};
    return names[static_cast<std::size_t>(tone)];
}

CardTone JobWords::tone(const JobStatus& status) {
    switch (status.phase) {
    case Phase::waiting:
        return CardTone::waiting;
    case Phase::done:
        if (status.copySucceeded == false)
            return CardTone::error;
        return status.safeToFormat && status.warnings.empty() ? CardTone::ok : CardTone::warning;
    case Phase::failed:
        return CardTone::error;
    case Phase::cancelled:
        return CardTone::warning;
    default:
        return CardTone::active;
    }
}

bool JobWords::isError(const JobStatus& status) { return status.phase == Phase::failed; }

bool JobWords::isRunning(const JobStatus& status) { return status.phase != Phase::waiting && !status.isFinished(); }

std::string_view JobWords::phaseText(Phase phase) noexcept {
    static constexpr std::array<std::string_view, 11> texts{
        "Waiting", "Copying", "Flushing", "Verifying", "Reporting", "Analyzing", "Proxies", "Finishing verification",
        "Done",    "Failed",  "Cancelled"};
    return texts[static_cast<std::size_t>(phase)];
}

std::string JobWords::statusText(const JobStatus& status) {
    if (status.pauseHeld)
        return "Paused";
    if (status.paused)
        return "Pausing";
    if (status.phase == Phase::done && status.copySucceeded == false)
        return "Error";
    return std::string(phaseText(status.phase));
}

std::optional<std::string> JobWords::pauseText(const JobStatus& status) {
    if (status.pauseHeld)
        return isPostStage(status.phase) ? "Paused — Resume continues with the next clip."
                                         : "Paused — Resume continues with the next file.";
    if (!status.paused)
        return std::nullopt;
    return status.pauseStep ? "Pausing (finishing " + *status.pauseStep + ")" : "Pausing";
}

std::string_view JobWords::cancellingText(Phase phase) noexcept {
    return isPostStage(phase) ? "Cancelling — stopping the clip in progress…"
                              : "Cancelling — finishing the current block, partly copied files will be deleted…";
}

std::array<CardChip, 2> JobWords::chips(const JobStatus& status, bool contentConfirmed, std::int64_t contentWarnings) {
    return {ejectChip(status), formatChip(status, contentWarnings > 0 && !contentConfirmed)};
}

std::optional<std::string_view> JobWords::promiseText(const JobStatus& status) noexcept {
    if (status.safeToFormat)
        return "The copy is verified — the card is safe to eject and format.";
    if (status.verifyInProxy && status.copySucceeded == true && status.phase > Phase::reporting)
        return "the verification with the proxies is still running, or was interrupted — do not format the card yet";
    return std::nullopt;
}

std::string JobWords::summaryText(const OffloadReport& report) {
    std::vector<std::string> parts;
    if (const double seconds = report.copySeconds(); seconds > 0)
        parts.push_back(rateText(static_cast<double>(report.totalBytes) / seconds));
    if (const auto clips = static_cast<std::int64_t>(report.clips.size()); clips > 0)
        parts.push_back(counted(clips, "clip", "clips"));
    const ProxyCounts proxies = countProxies(report);
    if (proxies.done > 0)
        parts.push_back(counted(proxies.done, "proxy", "proxies"));
    if (proxies.failed > 0)
        parts.push_back(std::to_string(proxies.failed) + " failed");
    if (proxies.unsupported > 0)
        parts.push_back(std::to_string(proxies.unsupported) + " unsupported");
    if (proxies.lighter > 0)
        parts.push_back(std::to_string(proxies.lighter) + " without proxy (lighter original)");
    return join(parts, " · ");
}

std::string JobWords::rateText(double bytesPerSecond) { return fmt::format("{:.0f} MB/s", bytesPerSecond / 1e6); }

std::string JobWords::etaText(double seconds) {
    constexpr double longest = 359999; // 99:59:59, for what would never end
    const auto whole = static_cast<std::int64_t>(std::clamp(std::round(seconds), 0.0, longest));
    if (whole < 3600)
        return fmt::format("{}:{:02}", whole / 60, whole % 60);
    return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

} // namespace velmora
