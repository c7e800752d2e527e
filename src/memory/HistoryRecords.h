#pragma once

#include "memory/BackupCheck.h"
#include "memory/HistoryStore.h"
#include "records/CardKey.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What the history says of a card at the beginning and at the end of a job. Pure functions; HistoryStore writes.
namespace HistoryRecords {

// The entry whose destinations are exactly these card folders; null when there is none.
const HistoryEntry* entryOf(const std::vector<HistoryEntry>& entries, const std::vector<std::string>& cardPaths);

// The entries that name a folder of the same day and card name as one of these; the backup's own are among them.
std::vector<const HistoryEntry*> entriesOfName(const std::vector<HistoryEntry>& entries,
                                               const std::vector<std::string>& cardPaths);

// An entry for a copy that begins now. It holds the whole card, so that a card that comes back after a crash is known
// and its backup can be finished.
HistoryStore::Change started(const OffloadPlan& plan, const std::optional<CardVolume>& volume, Timestamp now);

// The same for an append, a finish or a repair of a card that the history knows: its entry, marked as unfinished.
HistoryEntry reopened(const HistoryEntry& entry);

// The entry of a copy that broke off before its first file.
HistoryEntry failed(const HistoryEntry& entry, Timestamp now);

// True for such an entry: the folders that it names hold nothing, or another backup by now.
bool holdsNothing(const HistoryEntry& entry);

// The verdict at the end of a job.
struct Verdict {
    bool verified = false; // all of the backup, of which the report of the job may be a part
    bool safeToEject = false;
    bool safeToFormat = false;
};

// The entry after a job. `present` is the entry as it stands, null when it is gone; `card` are the files of the card
// that the backup has, `storedFiles` is the list of the entry before this job. `wholeCard` is the state of the backup
// after a run that covered a part of it: the entry may be new, or may have missed a generation. A repair reads every
// copy: if all is verified after it, earlier findings about its folders are cleared.
HistoryStore::Change finished(const HistoryEntry* present, const std::string& id, const OffloadReport& report,
                              const std::vector<SourceFile>& card, const std::optional<CardVolume>& volume,
                              const std::optional<std::vector<SourceFile>>& storedFiles,
                              const std::optional<BackupCheck>& wholeCard, const Verdict& verdict);

// Both are card folders of the same day and card name.
bool sameName(const std::string& a, const std::string& b);
// Both paths are those of one card folder.
bool samePlace(const std::string& a, const std::string& b);

// The entry after a verification of one of its folders; `mark.clean` or `mark.failed` is set.
HistoryEntry verified(const HistoryEntry& entry, const HistoryVerification& mark);

// The entry with the union of its stored list and what the card holds now (which wins, path by path), and the digests
// of that union: the next insertion of the same card with nothing new is then identical.
HistoryStore::Change withCard(const HistoryEntry& entry, const std::optional<CardVolume>& volume,
                              const std::vector<SourceFile>& card,
                              const std::optional<std::vector<SourceFile>>& storedFiles);

} // namespace HistoryRecords

} // namespace velmora
