#pragma once

#include "cli/Console.h"
#include "cli/LastWords.h"
#include "job/JobStatus.h"

#include <string>
#include <vector>

namespace velmora {

struct OffloadReport;

// What a person reads when a card is done: what was copied where, what failed, the two promises, and where they are
// denied, what to do.
namespace CopySummary {

struct Line {
    std::string text;
    Console::Tone tone = Console::Tone::plain;
};

// `report` may be null: a job that was refused or that broke off early has none.
std::vector<Line> lines(const JobStatus& status, const OffloadReport* report, const LastWords& words);
// The command that goes on; nothing where there is none.
std::vector<Line> wayOn(const LastWords& words);

} // namespace CopySummary

} // namespace velmora
