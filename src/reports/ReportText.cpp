#include "reports/ReportText.h"

#include "base/Text.h"
#include "records/OffloadReport.h"

#include <fmt/format.h>

namespace velmora::ReportText {

namespace {

std::string timing(double seconds, std::int64_t bytes) {
    const std::string rate =
        seconds > 0 ? fmt::format("{:.0f} MB/s", static_cast<double>(bytes) / seconds / 1e6) : std::string("-");
    return fmt::format("{:.1f} s  {}", seconds, rate);
}

std::string verifyLine(const OffloadReport& report) {
    if (report.verified)
        return timing(report.verifySeconds(), report.totalBytes);
    return report.verifyPending.value_or(false) ? "PENDING (with the proxies)" : "NOT VERIFIED";
}

void addWarnings(std::string& text, const OffloadReport& report) {
    if (report.safeToFormatSeconds)
        text += fmt::format("Safe to format after: {:.1f} s\n", *report.safeToFormatSeconds);
    if (report.verifyIncomplete.value_or(false))
        text += "Verification result not written on every destination: UNFINISHED — do not format the card yet.\n";
    if (const auto warnings = report.contentWarnings(); !warnings.empty()) {
        std::vector<std::string> entries;
        for (const ClipEntry* entry : warnings)
            entries.push_back(entry->clip.name + " " + entry->content->timecode.value_or(""));
        text += fmt::format("Content warnings: {} ({})\n", warnings.size(), join(entries, ", "));
    }
    if (report.pausedSeconds() > 0)
        text += fmt::format("Paused:      {:.1f} s (not in the speeds)\n", report.pausedSeconds());
}

void addDestination(std::string& text, const OffloadReport::Destination& destination) {
    text += fmt::format("Destination: {} [{}", destination.cardPath, destination.filesystem);
    if (destination.volumeSerial)
        text += " " + *destination.volumeSerial;
    text += fmt::format("]  ok {}  failed {}", destination.filesOK, destination.filesFailed);
    if (destination.verifyMethod)
        text += "  verify: " + *destination.verifyMethod;
    text += "\n";
}

void addFailures(std::string& text, const OffloadReport& report) {
    const auto failed = report.failedFiles();
    if (failed.empty())
        return;
    text += fmt::format("\nFAILED FILES ({}):\n", failed.size());
    for (const OffloadReport::FileEntry* file : failed) {
        text += fmt::format("  {}\n", file->path);
        if (file->sourceError)
            text += fmt::format("    source: {}\n", *file->sourceError);
        for (std::size_t column = 0; column < file->errors.size(); ++column)
            if (file->errors[column])
                text += fmt::format("    dest {}: {}\n", column + 1, *file->errors[column]);
    }
}

} // namespace

std::string summary(const OffloadReport& report) {
    std::string text = fmt::format("OFFLOAD REPORT — {}\n", report.success() ? "OK" : "FAILED");
    text += fmt::format("Card:        {}\n", report.cardName);
    text += fmt::format("Source:      {} [{}]\n", report.source, report.sourceFilesystem);
    text += fmt::format("Started:     {}\n", TimeText::iso8601Local(report.started));
    text += fmt::format("Finished:    {}\n", TimeText::iso8601Local(report.finished));
    text += fmt::format("Files:       {}  ({})\n", report.totalFiles, formatBytes(report.totalBytes));
    if (const auto rates = report.frameRateSummary())
        text += fmt::format("Frame rate:  {}\n", *rates);
    text += fmt::format("Copy:        {}\n", timing(report.copySeconds(), report.totalBytes));
    text += fmt::format("Verify:      {}\n", verifyLine(report));
    addWarnings(text, report);
    text += fmt::format("Hash:        {}\n", join(report.algorithms(), "+"));
    for (const auto& destination : report.destinations)
        addDestination(text, destination);
    if (report.verifyNotes && !report.verifyNotes->empty()) {
        text += "\nVerification notes:\n";
        for (const auto& note : *report.verifyNotes)
            text += fmt::format("  {}\n", note);
    }
    if (!report.skipped.empty())
        text += fmt::format("\nSkipped (system files): {}\n", join(report.skipped, ", "));
    addFailures(text, report);
    return text;
}

} // namespace velmora::ReportText
