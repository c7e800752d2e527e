#include "memory/CardRecord.h"

#include "base/Errors.h"
#include "base/Product.h"
#include "base/Text.h"
#include "clips/ClipDetector.h"
#include "disks/VolumeSerial.h"
#include "engine/Layout.h"
#include "memory/FolderState.h"
#include "memory/SameFolder.h"
#include "platform/IO.h"
#include "platform/VolumeFacts.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace velmora {

namespace {

constexpr std::string_view reportStem = "offload_report";

std::string reportFolder(const std::string& cardPath) { return cardPath + "/" + std::string(Layout::reportDirName); }

// Reads one report; a report without a list could make a whole card look new, so it counts as unreadable.
std::shared_ptr<const OffloadReport> readReport(FolderState& folder, std::int64_t number) {
    auto report = folder.report(number);
    if (report->files.empty() || report->destinations.empty())
        throw OffloadError::failed("the list of files or destinations is missing");
    return report;
}

std::vector<std::int64_t> reportNumbers(const std::string& cardPath) {
    std::vector<std::int64_t> numbers;
    for (const IOEntry& entry : IO::list(reportFolder(cardPath)))
        if (const auto number = CardRecord::numberedFile(entry.name))
            numbers.push_back(*number);
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

void mergeFiles(CardRecord& record, const CardRecord::Generation& generation) {
    if (record.files.empty())
        record.files.reserve(generation.report->files.size());
    for (const auto& file : generation.report->files) {
        RecordedFile recorded{&file, generation.generation, generation.report};
        const auto [slot, isNew] = record.files.try_emplace(pathKey(file.path), recorded);
        if (isNew)
            continue;
        // Another name under the same key is another file; only a repair may record a file under a changed name, unless
        // the key has two files already.
        const bool isTwin = record.twins.contains(file.path);
        if (slot->second.file->path != file.path && (isTwin || !generation.report->isRepair()))
            record.twins.insert_or_assign(slot->second.file->path, slot->second);
        if (!record.twins.empty())
            record.twins.erase(file.path);
        slot->second = std::move(recorded);
    }
}

} // namespace

std::optional<std::int64_t> CardRecord::numberedFile(std::string_view name) {
    constexpr std::string_view json = ".json";
    if (!name.starts_with(reportStem) || !name.ends_with(json) || name.size() < reportStem.size() + json.size())
        return std::nullopt;
    std::string_view middle = name.substr(reportStem.size(), name.size() - reportStem.size() - json.size());
    if (middle.empty())
        return 1;
    if (middle.front() != '_')
        return std::nullopt;
    middle.remove_prefix(1);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(middle.data(), middle.data() + middle.size(), number);
    if (middle.size() < 4 || middle.size() > 9 || error != std::errc() || end != middle.data() + middle.size() ||
        number < 2)
        return std::nullopt;
    return number;
}

CardRecord CardRecord::load(const std::string& cardPath, std::optional<std::int64_t> maxGeneration,
                            const std::optional<std::optional<std::string>>& serial) {
    FolderState folder(cardPath, {});
    return load(folder, maxGeneration, serial);
}

CardRecord CardRecord::load(FolderState& folder, std::optional<std::int64_t> maxGeneration,
                            const std::optional<std::optional<std::string>>& serial) {
    const std::string& cardPath = folder.cardPath();
    CardRecord record;
    record.cardPath = cardPath;
    record.volumeSerial = serial ? *serial : VolumeFacts::volumeSerialText(cardPath);
    const std::string first = reportFolder(cardPath) + "/" + OffloadReport::jsonName(1);
    // With generation 1 itself unfinished there is nothing before it that could be read.
    if (maxGeneration && *maxGeneration < 1) {
        try {
            for (const std::int64_t number : reportNumbers(cardPath))
                record.highestReportNumber = std::max(record.highestReportNumber, number);
        } catch (const IOError& error) {
            if (error.code() != ENOENT && error.code() != ENOTDIR) // else there is no folder for reports yet
                record.error = error.what();
        }
        return record;
    }
    try {
        if (!IO::exists(first)) {
            record.reportMissing = true;
            return record;
        }
        try {
            record.generations.push_back({1, readReport(folder, 1)});
        } catch (const OffloadError& error) {
            record.error = OffloadReport::jsonName(1) + ": " + error.what();
            return record;
        }
        const std::vector<std::int64_t> numbers = reportNumbers(cardPath);
        record.highestReportNumber = numbers.empty() ? 1 : numbers.back();
        for (std::int64_t number : numbers) {
            if (number < 2 || (maxGeneration && number > *maxGeneration))
                continue;
            const std::string name = OffloadReport::jsonName(number);
            try {
                auto report = readReport(folder, number);
                const std::int64_t generation = report->generation.value_or(number);
                record.generations.push_back({generation, std::move(report)});
            } catch (const Cancelled&) {
                throw;
            } catch (const std::exception& error) {
                record.problems.push_back(name + ": " + error.what());
            }
        }
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        record.error = error.what();
        return record;
    }
    std::stable_sort(record.generations.begin(), record.generations.end(),
                     [](const Generation& a, const Generation& b) { return a.generation < b.generation; });
    for (Generation& generation : record.generations) {
        generation.column = columnOf(*generation.report, cardPath, record.volumeSerial);
        mergeFiles(record, generation);
    }
    return record;
}

void CardRecord::add(const std::shared_ptr<const OffloadReport>& report) {
    Generation generation{report->generationNumber(), report, columnOf(*report, cardPath, volumeSerial)};
    highestReportNumber = std::max(highestReportNumber, generation.generation);
    reportMissing = false;
    mergeFiles(*this, generation);
    generations.push_back(std::move(generation));
}

// Reports made without clip analysis list no clips: then they are found from the file list, as names and sizes.
std::vector<ClipEntry> CardRecord::clips() const {
    std::map<std::string, ClipEntry> newest;
    for (const auto& generation : generations) {
        std::vector<ClipEntry> listed = generation.report->clips;
        if (listed.empty()) {
            std::vector<SourceFile> scanned;
            for (const auto& file : generation.report->files)
                scanned.push_back({file.path, file.size, file.modified});
            for (Clip& clip : ClipDetector::detect(scanned))
                listed.emplace_back().clip = std::move(clip);
        }
        for (ClipEntry& entry : listed)
            newest.insert_or_assign(entry.clip.name + "\n" + entry.clip.path, std::move(entry));
    }
    std::vector<ClipEntry> all;
    for (auto& [key, entry] : newest)
        all.push_back(std::move(entry));
    return all;
}

std::optional<std::string> CardRecord::project() const {
    for (auto generation = generations.rbegin(); generation != generations.rend(); ++generation)
        if (generation->report->project)
            return generation->report->project;
    return std::nullopt;
}

Timestamp CardRecord::started() const {
    Timestamp earliest;
    for (const Generation& generation : generations)
        if (&generation == &generations.front() || generation.report->started < earliest)
            earliest = generation.report->started;
    return earliest;
}

Timestamp CardRecord::finished() const {
    Timestamp latest;
    for (const Generation& generation : generations)
        latest = std::max(latest, generation.report->finished);
    return latest;
}

bool CardRecord::verifyPending() const {
    return std::any_of(generations.begin(), generations.end(),
                       [](const Generation& g) { return g.report->verifyPending.value_or(false); });
}

std::vector<std::string> CardRecord::failedFiles() const {
    std::vector<std::string> failed;
    const auto add = [&](const RecordedFile& recorded) {
        if (recorded.report->isFailed(*recorded.file))
            failed.push_back(recorded.file->path);
    };
    for (const auto& [key, recorded] : files)
        add(recorded);
    // Two names in one report are two files; in two reports the later may be the same file under another case.
    for (const auto& [path, recorded] : twins)
        if (files.at(pathKey(path)).report == recorded.report)
            add(recorded);
    std::sort(failed.begin(), failed.end());
    return failed;
}

const RecordedFile* CardRecord::find(const std::string& relPath, bool exactly) const {
    const auto found = files.find(pathKey(relPath));
    if (found == files.end())
        return nullptr;
    if (!exactly || found->second.file->path == relPath)
        return &found->second;
    const auto twin = twins.find(relPath);
    return twin == twins.end() ? nullptr : &twin->second;
}

bool CardRecord::verified() const {
    return !generations.empty() &&
           std::all_of(generations.begin(), generations.end(), [](const Generation& g) { return g.report->verified; });
}

std::optional<std::size_t> CardRecord::columnOf(const OffloadReport& report, const std::string& cardPath,
                                                const std::optional<std::string>& serial) {
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < report.destinations.size(); ++i) {
        const auto& destination = report.destinations[i];
        if (!isSameFolder({destination.cardPath, destination.volumeSerial}, cardPath, serial))
            continue;
        if (pathKey(destination.cardPath) == pathKey(cardPath))
            return i;
        if (found) // two copies on one disk, which is mounted elsewhere: which of them this is, their paths do not tell
            return std::nullopt;
        found = i;
    }
    return found;
}

std::optional<std::size_t> CardRecord::column(const OffloadReport& report) const {
    for (const Generation& generation : generations)
        if (generation.report.get() == &report)
            return generation.column;
    return columnOf(report, cardPath, volumeSerial);
}

std::string_view CardRecord::statusOf(const RecordedFile& recorded) const {
    const auto& words = recorded.file->destinations;
    if (const auto at = column(*recorded.report))
        return *at < words.size() ? std::string_view(words[*at]) : "failed";
    const auto isCopy = [](const std::string& word) { return word == "written" || word == "verified"; };
    return std::ranges::any_of(words, isCopy) ? "written" : "failed";
}

bool CardRecord::readBack(const RecordedFile& recorded, const std::string& cardPath,
                          const std::optional<std::string>& serial) {
    const auto column = columnOf(*recorded.report, cardPath, serial);
    return column && *column < recorded.file->destinations.size() && recorded.file->destinations[*column] == "verified";
}

BackupState BackupState::of(const std::vector<std::string_view>& statuses) {
    BackupState state;
    for (std::string_view status : statuses) {
        if (status == "written" || status == "pending")
            ++state.unverified;
        else if (status != "verified")
            ++state.failed;
    }
    return state;
}

namespace BackupMessage {

std::string failed(std::int64_t files) {
    return fmt::format("{} in the backup still {} not match — do not eject the card, run Copy again. "
                       "What puts it right in the same folders is Repair ({} repair).",
                       countedFiles(files), plural(files, "does", "do"), Product::cli);
}

std::string unverified(std::int64_t files) {
    return fmt::format("{} of the earlier backup {} not verified — Verify backup recommended.", countedFiles(files),
                       plural(files, "is", "are"));
}

std::string notInBackup(std::int64_t files) {
    return fmt::format("The card has {} that the backup does not — do not eject the card, append to the backup.",
                       countedFiles(files));
}

std::string changed(const std::vector<std::string>& paths) {
    const auto more = static_cast<std::int64_t>(paths.size()) - 1;
    return fmt::format("{}{} changed on the card after being copied: the backup has the earlier state, which neither "
                       "append nor repair replaces — do not format the card; copy it in full to a new folder ({} copy "
                       "… --again).",
                       escapeForDisplay(paths.front()), more > 0 ? fmt::format(" and {} more", more) : "",
                       Product::cli);
}

std::string unreadable(std::string_view error) {
    return fmt::format("Cannot read the state of the backup ({}) — nothing was checked, do not eject the card yet.",
                       error);
}

std::string elsewhereUnchecked(std::string_view cardPath) {
    return fmt::format("The backup is also in {}, which was not named and is not there now — do not format the card "
                       "before that folder has been brought in step.",
                       cardPath);
}

std::string elsewhereLacks(std::string_view cardPath, std::int64_t files) {
    return fmt::format(
        "The backup is also in {}, which was not named and does not hold {} of the card verified — do not "
        "format the card before that folder has been brought in step.",
        cardPath, countedFiles(files));
}

} // namespace BackupMessage

} // namespace velmora
