#pragma once

#include "cli/Command.h"
#include "job/OffloadJob.h"

namespace velmora {

class HistorySession;

// Runs a job on a thread of its own and shows it: a live line on a terminal, or JSON objects; then the outcome. Ctrl-C
// and its kin cancel the job, SIGUSR1 pauses it and SIGUSR2 lets it go on. Returns when the history has its record.
// `into` are the folders that an append or a repair was given.
ExitStatus runJob(OffloadJob& job, HistorySession& history, CommandContext& context, bool json,
                  const std::vector<std::string>& into = {});

// The exit status of a job that has ended.
ExitStatus exitStatusOf(const JobStatus& status, bool hasReport, bool verificationWanted);

} // namespace velmora
