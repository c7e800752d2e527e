#pragma once

#include "memory/HistoryText.h"
#include "records/HistoryEntry.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// One remembered card, in words.
struct HistoryRow {
    std::string id;
    std::string cardName;
    std::string size;   // "3 files, 1.2 GB"
    std::string time;   // of its last generation, "2026-03-14 09:30"
    std::string status; // "verified", "NOT VERIFIED", …
    HistoryTone tone = HistoryTone::neutral;
    std::string project; // empty without one
    std::int64_t generations = 0;
    std::vector<std::string> folders; // the card folder on each disk
};

struct HistoryDay {
    std::string date;
    std::vector<HistoryRow> rows; // in the order of the history: newest first
};

// The history as a list for people. Pure functions.
namespace HistoryView {

// Grouped by shooting day, newest day first.
std::vector<HistoryDay> build(const std::vector<HistoryEntry>& entries);

} // namespace HistoryView

} // namespace velmora
