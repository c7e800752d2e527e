#include "cli/ProxyWords.h"

#include "base/Text.h"

#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <array>

namespace velmora::ProxyWords {

namespace {

std::size_t count(const std::vector<ProxyBatch::Item>& items, ProxyOutcome outcome) {
    return static_cast<std::size_t>(
        std::ranges::count_if(items, [&](const ProxyBatch::Item& item) { return item.outcome == outcome; }));
}

struct Word {
    ProxyOutcome outcome;
    const char* text;
};
constexpr std::array<Word, 7> words{{{ProxyOutcome::done, "done"},
                                     {ProxyOutcome::existing, "there already"},
                                     {ProxyOutcome::lighter, "lighter"},
                                     {ProxyOutcome::skipped, "skipped"},
                                     {ProxyOutcome::unsupported, "unsupported"},
                                     {ProxyOutcome::failed, "failed"},
                                     {ProxyOutcome::waiting, "not begun"}}};

} // namespace

std::string line(const ProxyBatch::Progress& progress) {
    std::string text =
        fmt::format("Proxies {}/{}  {:.0f} %", progress.ended, progress.toRender, progress.fraction * 100);
    if (progress.failed > 0)
        text += fmt::format("  {} failed", progress.failed);
    if (progress.speed)
        text += fmt::format("  {:.1f}× real time", *progress.speed);
    if (progress.secondsLeft) {
        const auto left = static_cast<std::int64_t>(std::ceil(std::min(*progress.secondsLeft, 1e7)));
        text += fmt::format("  {}:{:02} left", left / 60, left % 60);
    }
    for (const auto& clip : progress.running)
        text += fmt::format("  {} {:.0f} %", clip.clip, clip.fraction * 100);
    return text;
}

nlohmann::json status(const ProxyBatch::Progress& progress) {
    nlohmann::json running = nlohmann::json::array();
    for (const auto& clip : progress.running)
        running.push_back({{"clip", withValidUtf8(clip.clip)}, {"fraction", clip.fraction}});
    nlohmann::json json = {{"event", "status"},
                           {"phase", "proxies"},
                           {"ended", progress.ended},
                           {"toRender", progress.toRender},
                           {"failed", progress.failed},
                           {"fraction", progress.fraction},
                           {"running", std::move(running)}};
    if (progress.speed)
        json["speed"] = *progress.speed;
    if (progress.secondsLeft)
        json["secondsLeft"] = *progress.secondsLeft;
    return json;
}

std::vector<std::string> summary(const std::vector<ProxyBatch::Item>& items, const std::string& out, bool cancelled) {
    std::vector<std::string> counts;
    for (const auto& [outcome, text] : words)
        if (const std::size_t n = count(items, outcome); n > 0)
            counts.push_back(fmt::format("{} {}", n, text));
    std::vector<std::string> lines;
    if (items.empty())
        lines.emplace_back("There are no clips.");
    else
        lines.push_back(fmt::format("{}Proxies in {}: {}", cancelled ? "Cancelled. " : "", out, join(counts, ", ")));
    for (const auto& [outcome, text] : words)
        for (const ProxyBatch::Item& item : items)
            if (item.outcome == outcome && !item.note.empty() &&
                (outcome != ProxyOutcome::existing || (item.entry.content && item.entry.content->kind)))
                lines.push_back(fmt::format("  {}: {}: {}", text, item.entry.clip.path, item.note));
    return lines;
}

nlohmann::json result(const std::vector<ProxyBatch::Item>& items, const std::string& out, int exitStatus) {
    nlohmann::json clips = nlohmann::json::array();
    for (const ProxyBatch::Item& item : items) {
        nlohmann::json clip = {{"clip", withValidUtf8(item.entry.clip.path)}, {"outcome", name(item.outcome)}};
        if (!item.file.empty())
            clip["proxy"] = withValidUtf8(out + "/" + item.file);
        if (item.entry.content)
            clip["content"] = *item.entry.content;
        if (!item.note.empty())
            clip["note"] = withValidUtf8(item.note);
        if (item.outcome == ProxyOutcome::done)
            clip["seconds"] = item.seconds;
        if (item.entry.lut)
            clip["lut"] = *item.entry.lut;
        clips.push_back(std::move(clip));
    }
    nlohmann::json json = {{"event", "result"},
                           {"exitStatus", exitStatus},
                           {"cancelled", exitStatus == 130},
                           {"out", withValidUtf8(out)},
                           {"clips", std::move(clips)}};
    for (const auto& [outcome, text] : words)
        json[std::string(name(outcome))] = count(items, outcome);
    return json;
}

} // namespace velmora::ProxyWords
