#include "cli/CopySummary.h"

#include "base/Text.h"
#include "cli/TerminalText.h"
#include "engine/Layout.h"
#include "job/JobWords.h"
#include "platform/IO.h"
#include "proxies/ProxyDecision.h"
#include "records/OffloadReport.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>

namespace velmora::CopySummary {

namespace {

using Tone = Console::Tone;

// More than fit on a screen help nobody; the report has them all.
constexpr std::size_t failuresShown = 20;

class Page {
public:
    // A text of several lines becomes several lines.
    void add(std::string_view text, Tone tone = Tone::plain) {
        for (const std::string_view line : split(text, '\n'))
            lines_.push_back({TerminalText::printable(line), tone});
    }
    void addAll(const JobStatus& status, const OffloadReport& report);
    void addFailures(const OffloadReport& report);
    void addClips(const OffloadReport& report);
    void addPromises(const JobStatus& status, const OffloadReport* report);
    void addLastWords(const LastWords& words);
    void addWayOn(const LastWords& words);
    std::vector<Line> take() { return std::move(lines_); }

private:
    std::vector<Line> lines_;
};

std::string speed(std::string_view what, double seconds, std::int64_t bytes) {
    if (seconds < 0.05)
        return fmt::format("{} {:.1f} s", what, seconds);
    return fmt::format("{} {:.1f} s ({:.0f} MB/s)", what, seconds, static_cast<double>(bytes) / seconds / 1e6);
}

// In the first card folder where it stands; empty when it stands nowhere.
std::string reportPath(const OffloadReport& report) {
    for (const auto& destination : report.destinations) {
        const std::string path = fmt::format("{}/{}/{}", destination.cardPath, Layout::reportDirName,
                                             OffloadReport::textName(report.generationNumber()));
        if (!IO::isGone(path))
            return path;
    }
    return {};
}

void Page::addAll(const JobStatus& status, const OffloadReport& report) {
    add(fmt::format("{}: {}, {}", report.cardName, countedFiles(report.totalFiles), formatBytes(report.totalBytes)),
        Tone::bold);
    for (const auto& destination : report.destinations) {
        const bool bad = destination.filesFailed > 0;
        add(fmt::format("  {}  {} ok{}", destination.cardPath, destination.filesOK,
                        bad ? fmt::format(", {} failed", destination.filesFailed) : ""),
            bad ? Tone::bad : Tone::plain);
    }
    std::string times = "  " + speed("copied in", report.copySeconds(), report.totalBytes);
    const auto rode = [](const auto& destination) { return destination.verifyMethod == "verify-in-proxy"; };
    if (report.verified && std::ranges::any_of(report.destinations, rode))
        times += fmt::format(", verified while the proxies were made, in {:.1f} s", report.verifySeconds());
    else if (report.verified)
        times += ", " + speed("read back in", report.verifySeconds(), report.totalBytes);
    else
        times += ", not verified";
    if (report.pausedSeconds() > 0)
        times += fmt::format(", paused {:.1f} s", report.pausedSeconds());
    add(times);
    for (const auto& note : report.verifyNotes.value_or(std::vector<std::string>{}))
        if (std::ranges::find(status.warnings, note) == status.warnings.end()) // the warnings follow further down
            add("  " + note, Tone::warning);
    addFailures(report);
    addClips(report);
}

// What a person has to look at: proxies that are missing, and clips whose content is damaged.
void Page::addClips(const OffloadReport& report) {
    if (report.clips.empty())
        return;
    std::map<ProxyStatus, std::int64_t> count;
    for (const ClipEntry& clip : report.clips)
        ++count[clip.proxyStatus];
    std::vector<std::string> parts{counted(static_cast<std::int64_t>(report.clips.size()), "clip", "clips")};
    if (report.proxy) {
        parts.push_back(counted(count[ProxyStatus::done], "proxy", "proxies"));
        for (const auto& [status, text] : {std::pair{ProxyStatus::skipped, "without"},
                                           {ProxyStatus::unsupported, "unsupported"},
                                           {ProxyStatus::failed, "failed"},
                                           {ProxyStatus::none, "not begun"}})
            if (count[status] > 0)
                parts.push_back(fmt::format("{} {}", count[status], text));
    }
    add("  " + join(parts, ", "));
    std::size_t shown = 0;
    const auto tell = [&](const ClipEntry& clip, const std::string& what, Tone tone) {
        if (++shown <= failuresShown)
            add(fmt::format("    {}: {}", clip.clip.path, what), tone);
    };
    for (const ClipEntry& clip : report.clips) {
        if (clip.content && clip.content->kind)
            tell(clip, ProxyDecision::defectText(*clip.content), Tone::warning);
        const bool plain = clip.proxyStatus == ProxyStatus::skipped || !clip.proxyNote;
        if (!plain)
            tell(clip, *clip.proxyNote, clip.proxyStatus == ProxyStatus::failed ? Tone::bad : Tone::plain);
    }
    if (shown > failuresShown)
        add(fmt::format("    and {} more", shown - failuresShown));
}

void Page::addFailures(const OffloadReport& report) {
    const auto failed = report.failedFiles();
    if (failed.empty())
        return;
    add("");
    add(fmt::format("Failed files ({}):", failed.size()), Tone::bad);
    for (std::size_t i = 0; i < std::min(failed.size(), failuresShown); ++i) {
        const auto& file = *failed[i];
        add("  " + file.path);
        if (file.sourceError)
            add("    card: " + *file.sourceError);
        for (std::size_t column = 0; column < file.errors.size(); ++column) {
            // A card that could not be read fails on every disk, and says so once.
            if (!file.errors[column] || (file.sourceError && file.errors[column]->starts_with("source: ")))
                continue;
            add(fmt::format("    {}: {}", report.destinations.at(column).root, *file.errors[column]));
        }
    }
    if (failed.size() > failuresShown)
        add(fmt::format("  and {} more", failed.size() - failuresShown));
}

Tone toneOf(CardTone tone) {
    switch (tone) {
    case CardTone::ok:
        return Tone::good;
    case CardTone::error:
        return Tone::bad;
    default:
        return Tone::warning;
    }
}

void Page::addPromises(const JobStatus& status, const OffloadReport* report) {
    add("");
    if (status.error && report != nullptr) // without a report it stands on standard error
        add(*status.error, Tone::bad);
    for (const auto& warning : status.warnings)
        add(warning, Tone::warning);
    if (status.note)
        add(*status.note, Tone::warning);
    for (const auto& chip : JobWords::chips(status, false, status.contentWarnings))
        add(chip.text, toneOf(chip.tone));
    if (const auto promise = JobWords::promiseText(status))
        add(*promise);
    if (const std::string path = report == nullptr ? "" : reportPath(*report); !path.empty())
        add("Report: " + path);
}

void Page::addLastWords(const LastWords& words) {
    if (words.happened.empty())
        return;
    add("");
    add(words.happened + " " + words.safe, Tone::bold);
    addWayOn(words);
}

void Page::addWayOn(const LastWords& words) {
    if (words.next.empty())
        return;
    add("To go on:");
    add("  " + words.next);
}

} // namespace

std::vector<Line> wayOn(const LastWords& words) {
    Page page;
    page.addWayOn(words);
    return page.take();
}

std::vector<Line> lines(const JobStatus& status, const OffloadReport* report, const LastWords& words) {
    Page page;
    if (report != nullptr)
        page.addAll(status, *report);
    page.addPromises(status, report);
    page.addLastWords(words);
    return page.take();
}

} // namespace velmora::CopySummary
