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
// "finished" at the end. A history that is busy or cannot be written never holds the job up or fails it. What it
// remembers is asked also by a job that is not recorded.
class HistoryKeeper {
public:
    // Without `records` the job leaves no record, but for what its reading of copies says of earlier verifications.
    HistoryKeeper(HistoryRecorder& recorder, std::string folder, bool records, const std::string& source, Log log);

    // What the history knows of a backup before a run into its folders.
    struct Known {
        std::optional<CardKey> medium;            // the card
        std::vector<AppendPlanner::PastRun> runs; // the folders of each record that may be of this backup
        // For each folder that did not pass its last verification: the folder, and the sentence that says so.
        std::map<std::string, std::string> failedVerifications;
        std::optional<Timestamp> lastClean; // since when every folder has passed a verification
        std::vector<HistoryGap> gaps;       // what the history may have forgotten

        // The sentence that denies where it may have forgotten something of these folders, whose copies were last read
        // then.
        std::optional<std::string> forgotten(const std::vector<CardRecord>& folders,
                                             const std::optional<Timestamp>& lastRead) const;
        // The same for a full copy, to which it does not matter.
        std::vector<std::string> losses() const;
    };
    // Looks once; the entry of these folders, or a new one, is the one that this job will finish.
    Known look(const std::vector<std::string>& cardPaths, const IsCancelled& isCancelled);
    // The same without waiting, for the folders of a full copy.
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
    // Folders in which this run has read every file and found it good: what verifications found there is over. This is
    // no record of the run, and kept for every job. `notKept` gets a sentence where it cannot be written.
    void passed(std::vector<HistoryVerification> folders, const std::function<void()>& delayed,
                const std::function<void(const std::string&)>& notKept);
    // The job did nothing: the entry goes, or goes back to what it was.
    void forget();
    // The same after an error; but the entry of a copy stays, as one of which every file has failed.
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
