#pragma once

#include "base/Errors.h"
#include "memory/HistoryFile.h"
#include "memory/Remembered.h"
#include "records/CardKey.h"
#include "records/HistoryEntry.h"
#include "records/SourceFile.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct HistoryDocument; // one of the two files

enum class HistoryWrite {
    written,
    unchanged,
    newer, // a newer version of the program has written the history, which is only read
    busy,
    failed,
};

// history.json: every card that was backed up, newest first. A cache of facts, never the truth about a backup: that is
// the folder on the disk.
//
// Beside it stands "history/{id}.files.gz" with the files of each card. Every change is made under a lock between
// processes and replaces the file atomically, so a reader sees the state before or after. A file list is written before
// the entry that names it: a crash between the two leaves a list that nothing names, never a name without a list. A
// file of a newer version is read if it can be and never written; a file that cannot be parsed is set aside under a
// name of its own and the history starts empty. Appending to a log instead was rejected: the file is read far more
// often than written, and 5,000 entries are written in well under a second.
//
// What verifications found stands in "verifications.json", by card folder: it outlives the entry that names the folder,
// and damage to history.json. Entries have it as well, for programs that know no such file.
//
// Any thread; the store itself holds no state but its settings.
class HistoryStore {
public:
    static constexpr std::size_t maxEntriesDefault = 5000;

    // `lockTimeout` in seconds.
    HistoryStore(std::string folder, double lockTimeout, std::size_t maxEntries = maxEntriesDefault, Log log = {});

    const std::string& folder() const noexcept { return folder_; }

    // Reads without the lock when it cannot get it in time. A file that cannot be read becomes a gap, and so does one
    // that was set aside earlier. Throws only Cancelled, while it waits for the lock.
    Remembered recall(const IsCancelled& isCancelled = {});
    // The entries alone.
    std::vector<HistoryEntry> load(const IsCancelled& isCancelled = {}) { return recall(isCancelled).entries; }

    struct Change {
        HistoryEntry entry;
        std::optional<std::vector<SourceFile>> files; // a new file list, if there is one
    };
    // Gets the present entry, or null. Returns none to change nothing.
    using Changer = std::function<std::optional<Change>(const HistoryEntry* present)>;

    // Also returns `unchanged` where a newer version of the program has written the history.
    HistoryWrite update(const std::string& id, const Changer& change, std::optional<double> timeout = {});
    // Removes the entry and its list. What verifications found in its folders stays known.
    HistoryWrite remove(const std::string& id, std::optional<double> timeout = {});

    // Keeps what a verification found in a folder.
    HistoryWrite enter(const HistoryVerification& mark, std::optional<double> timeout = {});

    std::optional<std::vector<SourceFile>> readFileList(const HistoryEntry& entry) const;

    // The first entry that is about this card. With a key, its card has the same serial and capacity. Without one (a
    // folder, or a volume without a serial) it has no card and the same shape. Passed over are entries whose medium is
    // known to have another `identity`, and the entry of a copy that holds nothing, unless there is no other. Null when
    // none is left.
    static const HistoryEntry* findForCard(const std::optional<CardKey>& key, const std::string& shape,
                                           const std::vector<HistoryEntry>& entries,
                                           const std::optional<std::string>& identity = {});

    // "20261116T072500Z-1a2b3c4d": the time and 32 random bits.
    static std::string newId(Timestamp finished);

private:
    std::string path(const HistoryDocument& document) const;
    std::string listPath(const std::string& id) const;
    HistoryFile::Contents read(const HistoryDocument& document) const;
    void setAside(const HistoryDocument& document) const;
    void recall(const HistoryDocument& document, bool locked, Remembered& all) const;
    void addSetAside(std::vector<HistoryGap>& gaps) const;
    HistoryWrite save(std::vector<HistoryEntry> entries) const;
    void keepVerifications(const HistoryEntry& leaving) const;
    // Under the lock: reads, sets damage aside, hands the contents to `edit`, which saves what it changed.
    HistoryWrite underLock(const HistoryDocument& document, std::optional<double> timeout,
                           const std::function<HistoryWrite(HistoryFile::Contents&)>& edit);
    void say(const std::string& text) const;

    std::string folder_;
    double lockTimeout_;
    std::size_t maxEntries_;
    Log log_;
};

} // namespace velmora
