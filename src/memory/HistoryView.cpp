#include "memory/HistoryView.h"

#include "base/Text.h"

#include <functional>
#include <map>

namespace velmora::HistoryView {

namespace {

HistoryRow rowOf(const HistoryEntry& entry) {
    const HistoryText::Line state = HistoryText::state(entry);
    HistoryRow row;
    row.id = entry.id;
    row.cardName = entry.cardName;
    row.size = countedFiles(entry.files) + ", " + formatBytes(entry.bytes);
    row.time = HistoryText::when(entry.finished);
    row.status = state.text;
    row.tone = state.tone;
    row.project = entry.project.value_or("");
    row.generations = static_cast<std::int64_t>(entry.generations.size());
    for (const HistoryDestination& destination : entry.destinations)
        row.folders.push_back(destination.cardPath);
    return row;
}

} // namespace

std::vector<HistoryDay> build(const std::vector<HistoryEntry>& entries) {
    std::map<std::string, std::vector<HistoryRow>, std::greater<>> byDate;
    for (const HistoryEntry& entry : entries)
        byDate[entry.date].push_back(rowOf(entry));
    std::vector<HistoryDay> days;
    for (auto& [date, rows] : byDate)
        days.push_back({date, std::move(rows)});
    return days;
}

} // namespace velmora::HistoryView
