#include "memory/AppendPlan.h"

namespace velmora {

std::int64_t AppendPlan::newBytes() const {
    std::int64_t bytes = 0;
    for (const SourceFile& file : newFiles)
        bytes += file.size;
    return bytes;
}

OffloadPlan AppendPlan::toPlan() const {
    OffloadPlan plan;
    plan.source = source;
    // The report of the run lists what the card holds and no record can: those files are failures of every run.
    plan.scan = fullScan;
    plan.scan.files = newFiles;
    plan.scan.dirs = newDirs;
    plan.date = date;
    plan.cardName = cardName;
    plan.destRoots = destRoots;
    plan.mode = PlanMode::append;
    plan.generation = generation;
    plan.hashKinds = HashKinds::from(hashAlgorithms);
    plan.project = project;
    plan.notInBackup = later;
    plan.unverifiedEarlier = unverifiedEarlier;
    plan.fixedCardPaths = cardPaths;
    plan.resuming = resuming;
    plan.flushFileTaken = flushFileTaken;
    plan.tasks = tasks;
    plan.sourceMedium = sourceMedium;
    plan.elsewhere = elsewhere;
    return plan;
}

} // namespace velmora
