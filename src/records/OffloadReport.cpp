#include "records/OffloadReport.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "records/Timecode.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {

std::string numbered(std::string_view first, std::string_view later, std::int64_t generation,
                     std::string_view extension) {
    return generation < 2 ? fmt::format("{}.{}", first, extension)
                          : fmt::format("{}_{:04}.{}", later, generation, extension);
}

std::optional<std::string> frameRateText(const ClipInfo& info) {
    const auto playback = ClipInfo::label(info.frameRate), capture = ClipInfo::label(info.captureFrameRate);
    if (!playback && !capture)
        return std::nullopt;
    if (info.captureDiffers())
        return fmt::format("{} fps capture, {} playback", *capture, *playback);
    return (playback ? *playback : *capture) + " fps";
}

} // namespace

std::string OffloadReport::jsonName(std::int64_t generation) {
    return numbered("offload_report", "offload_report", generation, "json");
}

std::string OffloadReport::textName(std::int64_t generation) {
    return numbered("offload_report", "offload_report", generation, "txt");
}

std::string OffloadReport::htmlName(std::string_view card, std::int64_t generation) {
    const std::string base = std::string(card) + "_report";
    return numbered(base, base, generation, "html");
}

std::string OffloadReport::pdfName(std::string_view card, std::int64_t generation) {
    const std::string base = std::string(card) + "_report";
    return numbered(base, base, generation, "pdf");
}

const std::optional<std::string>& OffloadReport::FileEntry::digest(std::string_view algorithm) const {
    static const std::optional<std::string> none;
    if (algorithm == "xxh64")
        return xxh64;
    if (algorithm == "xxh128")
        return xxh128;
    return algorithm == "md5" ? md5 : none;
}

std::vector<std::string> OffloadReport::algorithms() const {
    return hashAlgorithms.value_or(std::vector<std::string>{"xxh64"});
}

bool OffloadReport::isFailed(const FileEntry& file) const {
    return file.sourceError || !std::all_of(file.destinations.begin(), file.destinations.end(),
                                            [&](const std::string& status) { return isGood(status); });
}

std::vector<const OffloadReport::FileEntry*> OffloadReport::failedFiles() const {
    std::vector<const FileEntry*> failed;
    for (const FileEntry& file : files)
        if (isFailed(file))
            failed.push_back(&file);
    return failed;
}

bool OffloadReport::hasFailedFiles() const {
    return std::any_of(files.begin(), files.end(), [&](const FileEntry& file) { return isFailed(file); });
}

std::optional<std::size_t> OffloadReport::columnAt(std::string_view cardPath) const {
    const auto path = RelativePath::withoutTrailingSlash(cardPath);
    for (std::size_t column = 0; column < destinations.size(); ++column)
        if (RelativePath::withoutTrailingSlash(destinations[column].cardPath) == path)
            return column;
    return std::nullopt;
}

bool OffloadReport::onlyOnItsDisk(std::size_t destination) const {
    const auto& serial = destinations.at(destination).volumeSerial;
    return serial && std::ranges::count(destinations, serial, &Destination::volumeSerial) == 1;
}

void OffloadReport::countFiles() {
    for (std::size_t column = 0; column < destinations.size(); ++column) {
        const auto good = [&](const FileEntry& file) {
            return column < file.destinations.size() && isGood(file.destinations[column]);
        };
        const std::int64_t ok = std::count_if(files.begin(), files.end(), good);
        destinations[column].filesOK = ok;
        destinations[column].filesFailed = static_cast<std::int64_t>(files.size()) - ok;
    }
}

std::vector<const ClipEntry*> OffloadReport::contentWarnings() const {
    std::vector<const ClipEntry*> warnings;
    for (const ClipEntry& entry : clips)
        if (entry.content && entry.content->state == "warn")
            warnings.push_back(&entry);
    return warnings;
}

double OffloadReport::copySeconds() const {
    return std::max(0.0, secondsBetween(started, copyFinished) - copyPausedSeconds.value_or(0));
}

double OffloadReport::verifySeconds() const {
    return std::max(0.0, secondsBetween(copyFinished, finished) - verifyPausedSeconds.value_or(0));
}

double OffloadReport::pausedSeconds() const { return copyPausedSeconds.value_or(0) + verifyPausedSeconds.value_or(0); }

std::optional<std::string> OffloadReport::frameRateSummary() const {
    std::vector<std::pair<std::string, std::int64_t>> counts; // in order of first appearance
    for (const ClipEntry& entry : clips) {
        const auto text = entry.info && !entry.clip.isCameraProxy ? frameRateText(*entry.info) : std::nullopt;
        if (!text)
            continue;
        const auto found = std::find_if(counts.begin(), counts.end(), [&](const auto& c) { return c.first == *text; });
        if (found == counts.end())
            counts.emplace_back(*text, 1);
        else
            ++found->second;
    }
    if (counts.empty())
        return std::nullopt;
    std::vector<std::string> parts;
    for (const auto& [text, n] : counts)
        parts.push_back(fmt::format("{} ({})", text, counted(n, "clip", "clips")));
    return join(parts, "; ");
}

} // namespace velmora
