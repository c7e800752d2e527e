#pragma once

#include "cli/LastWords.h"
#include "job/JobStatus.h"

#include <nlohmann/json_fwd.hpp>

namespace velmora {

class JobProgress;
struct OffloadReport;

// The objects that `--json` prints, one a line. Keys are only ever added.
namespace StatusJson {

// {"event":"status", …}: where a running job stands, with the smoothed rates.
nlohmann::json status(const JobStatus& status, const JobProgress& progress);

// {"event":"result", …}: how it ended. `report` may be null: a refused job has none.
nlohmann::json result(const JobStatus& status, const OffloadReport* report, const LastWords& words, int exitStatus);

} // namespace StatusJson

} // namespace velmora
