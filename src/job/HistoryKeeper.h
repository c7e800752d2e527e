#pragma once

#include "base/Errors.h"
#include "memory/AppendPlanner.h"
#include "memory/BackupCheck.h"
#include "memory/HistoryRecorder.h"
#include "memory/HistoryRecords.h"
#include "records/CardKey.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// The history records of one job: "start" before the first byte is copied, so that a crash leaves a trace, and
// "finished" at the end. A history that is busy or cannot be written never holds the job up or fails it. A job that is
// not recorded still asks what the history remembers.
class HistoryKeeper {
public:
    // Without `records` the job records nothing, except what its reading of copies says of earlier verifications.
    HistoryKeeper(HistoryRecorder& recorder, std::string folder, bool records, const std::string& source, Log log);

    // What the history knows of a backup before a run into its folders.
    struct Known {
        std::optional<CardKey> medium;            // the card
        std::vector<AppendPlanner::PastRun> runs; // the folders of each record that may be of this backup
        // For each folder that did not pass its last verification: the folder, and the sentence that says so.
        std::map<std::string, std::string> failedVerifications;
        std::optional<Timestamp> lastClean; // since when every folder has passed a verification
        std::vector<HistoryGap> gaps;       // what the history may have forgotten

        // The sentence that denies a promise when the history may have forgotten something about these folders, whose
        // copies were last read at `lastRead`.
        std::optional<std::string> forgotten(const std::vector<CardRecord>& folders,
                                             const std::optional<Timestamp>& lastRead) const;
        // A sentence for each gap, for a full copy: its promises do not depend on them.
        std::vector<std::string> losses() const;
    };
    // Reads the history once. The job will finish the entry of these folders, or a new one.
    Known look(const std::vector<std::string>& cardPaths, const IsCancelled& isCancelled);
    // Reads it without waiting for its lock, for the folders of a full copy. Chooses no entry.
    Known glance(const std::vector<std::string>& cardPaths) const;
    // What the history has against folders that this job did not lock, as it knows them now: a sentence each.
    // `lastRead` is when their copies were last read according to their records.
    std::vector<std::string> against(const std::vector<BackupPlace>& places,
                                     const std::optional<Timestamp>& lastRead) const;

    // A copy that begins now. `delayed` is called when the record has to wait for a busy history.
    void start(const OffloadPlan& plan, const std::function<void()>& delayed);
    // An append, a finish or a repair, after `look`: the entry is marked as unfinished.
    void reopen(const std::function<void()>& delayed);
    // `card` are the files of the card that the backup has; `wholeCard` is the state of the backup after a run that
    // covered a part of it.
    void finish(const OffloadReport& report, std::vector<SourceFile> card, const std::optional<BackupCheck>& wholeCard,
                const HistoryRecords::Verdict& verdict, const std::function<void()>& delayed);
    // Records that this run has read every file in these folders and found it good: that ends earlier findings there.
    // It is written for every job, as no record of the run. `notKept` gets a sentence when it cannot be.
    void passed(std::vector<HistoryVerification> folders, const std::function<void()>& delayed,
                const std::function<void(const std::string&)>& notKept);
    // The job did nothing: its new entry is removed, an existing one becomes what it was.
    void forget();
    // The same after an error, except that the new entry of a copy stays, with all its files as failed.
    void failed();

private:
    void record(const std::string& what, const std::function<void()>& delayed, HistoryRecorder::Write write);

    HistoryRecorder& recorder_;
    const std::string folder_;
    const bool records_;
    const Log log_;
    std::optional<CardVolume> volume_; // of the source, if it is a whole volume
    std::string id_;
    bool isNew_ = true; // the entry was made by this job
    bool wasUnfinished_ = false;
};

} // namespace velmora
