#pragma once

#include "job/JobStatus.h"

#include <string>
#include <vector>

namespace velmora {

struct OffloadReport;

// What the user had asked a run for.
struct Errand {
    std::string typed; // the command line, as a shell takes it
    std::string source;
    std::vector<std::string> roots;   // of a copy
    std::vector<std::string> folders; // of an append or a repair; of a copy, once it has claimed them
    bool into = false;                // an append or a repair
};

// The end of a run that is not good: what happened, what is safe now, and the one command that goes on.
struct LastWords {
    std::string happened; // empty: the end is good, and there is no more to say
    std::string safe;
    std::string next; // empty where the command itself has to be changed; the refusal says how

    static LastWords of(const JobStatus& status, const OffloadReport* report, const Errand& errand);
};

} // namespace velmora
