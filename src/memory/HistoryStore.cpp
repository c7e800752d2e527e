#include "memory/HistoryStore.h"

#include "base/Text.h"

#include "engine/FolderLocks.h"
#include "memory/FileListStore.h"
#include "memory/HistoryRecords.h"
#include "platform/FileLock.h"
#include "platform/IO.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <random>
#include <stdexcept>
#include <string_view>

namespace velmora {

struct HistoryDocument {
    std::string_view name;
    HistoryFile::Contents (*parse)(std::string_view text);
};

namespace {

constexpr HistoryDocument entriesFile{"history.json", HistoryFile::read};
constexpr HistoryDocument verificationsFile{"verifications.json", HistoryFile::readVerifications};
constexpr std::string_view asideMark = ".corrupt-"; // before the time at which it was set aside

// 5,000 entries take some ten megabytes; ten times that is no history of ours.
constexpr std::int64_t largestHistory = 256 << 20;

void newestFirst(std::vector<HistoryEntry>& entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const HistoryEntry& a, const HistoryEntry& b) { return a.finished > b.finished; });
}

auto withId(std::vector<HistoryEntry>& entries, const std::string& id) {
    return std::find_if(entries.begin(), entries.end(), [&](const HistoryEntry& e) { return e.id == id; });
}

// When the file was last written. The end of time if the file system does not tell.
Timestamp lastWritten(const std::string& path) {
    try {
        return IO::stat(path).modified;
    } catch (const IOError&) {
        return {std::numeric_limits<std::int64_t>::max(), 0};
    }
}

void removeList(const std::string& path) {
    try {
        IO::unlink(path);
    } catch (const IOError&) {
        // A list that nothing names costs a few kilobytes and is never read.
    }
}

} // namespace

HistoryStore::HistoryStore(std::string folder, double lockTimeout, std::size_t maxEntries, Log log)
    : folder_(std::move(folder)), lockTimeout_(lockTimeout), maxEntries_(maxEntries), log_(std::move(log)) {}

std::string HistoryStore::path(const HistoryDocument& document) const {
    return folder_ + "/" + std::string(document.name);
}

std::string HistoryStore::listPath(const std::string& id) const { return folder_ + "/history/" + id + ".files.gz"; }

void HistoryStore::say(const std::string& text) const {
    if (log_)
        log_(text);
}

HistoryFile::Contents HistoryStore::read(const HistoryDocument& document) const {
    std::string text;
    try {
        text = IO::readFile(path(document), largestHistory);
    } catch (const IOError& error) {
        // A file that is there but cannot be read now must not be taken for an empty history and written over.
        if (error.code() != ENOENT)
            throw;
        return {};
    }
    return document.parse(text);
}

Remembered HistoryStore::recall(const IsCancelled& isCancelled) {
    const std::string file = Locks::history(folder_);
    const auto lock = FileLock::problem(file) ? std::nullopt : FileLock::lock(file, lockTimeout_, isCancelled);
    Remembered all;
    for (const HistoryDocument* document : {&entriesFile, &verificationsFile})
        recall(*document, lock.has_value(), all);
    addSetAside(all.gaps);
    newestFirst(all.entries);
    return all;
}

void HistoryStore::recall(const HistoryDocument& document, bool locked, Remembered& all) const {
    const auto lost = [&](const std::string& why) {
        say("history: " + why);
        all.gaps.push_back({path(document), lastWritten(path(document)), why});
    };
    try {
        HistoryFile::Contents contents = read(document);
        // Without the lock the damage may be another's half-finished doing; only its holder may set the file aside.
        if (contents.state == HistoryFile::State::damaged && locked)
            setAside(document);
        else if (contents.state == HistoryFile::State::damaged)
            lost("it is damaged");
        else if (!contents.understood)
            lost("written by a newer version of Velmora");
        std::ranges::move(contents.entries, std::back_inserter(all.entries));
        std::ranges::move(contents.verifications, std::back_inserter(all.verifications));
    } catch (const std::exception& error) {
        lost(error.what());
    }
}

void HistoryStore::addSetAside(std::vector<HistoryGap>& gaps) const {
    try {
        for (const IOEntry& entry : IO::list(folder_))
            for (const HistoryDocument* document : {&entriesFile, &verificationsFile})
                if (entry.name.starts_with(std::string(document->name) + std::string(asideMark)))
                    gaps.push_back({folder_ + "/" + entry.name, lastWritten(folder_ + "/" + entry.name), {}});
    } catch (const IOError& error) {
        if (error.code() != ENOENT)
            gaps.push_back({folder_, lastWritten(folder_), error.what()});
    }
}

void HistoryStore::setAside(const HistoryDocument& document) const {
    const std::string base =
        path(document) + std::string(asideMark) + TimeText::local(Timestamp::now(), "%Y%m%d-%H%M%S");
    std::string target = base;
    for (int n = 2; IO::exists(target); ++n)
        target = base + "-" + std::to_string(n);
    IO::renameNoReplace(path(document), target);
    say(fmt::format("history: damaged {} set aside as {}", document.name, target));
}

HistoryWrite HistoryStore::save(std::vector<HistoryEntry> entries) const {
    newestFirst(entries);
    std::vector<std::string> dropped;
    while (entries.size() > maxEntries_) {
        try {
            keepVerifications(entries.back());
        } catch (const std::exception& error) { // the newest record is worth more than the oldest
            say(std::string("history: ") + error.what());
        }
        dropped.push_back(entries.back().id);
        entries.pop_back();
    }
    IO::mkdirs(folder_);
    IO::writeFileDurably(path(entriesFile), HistoryFile::write(entries));
    for (const std::string& id : dropped)
        removeList(listPath(id));
    return HistoryWrite::written;
}

// An older version of the program keeps what a verification found in the entry alone. It must outlive the entry.
void HistoryStore::keepVerifications(const HistoryEntry& leaving) const {
    if (leaving.verifications.empty())
        return;
    HistoryFile::Contents contents = read(verificationsFile);
    if (contents.state != HistoryFile::State::good)
        throw std::runtime_error(path(verificationsFile) + " cannot be written: it is damaged, or a newer version of " +
                                 "Velmora has written it");
    const Remembered known{{leaving}, contents.verifications, {}};
    // The newest mark may stand in one of the two files only: in the entry, or in the other.
    for (const HistoryVerification& each : leaving.verifications)
        if (const auto last = known.verificationOf(each.cardPath, each.volumeSerial))
            Verifications::enter(contents.verifications, *last);
    Verifications::bound(contents.verifications, maxEntries_);
    IO::writeFileDurably(path(verificationsFile), HistoryFile::write(contents.verifications));
}

HistoryWrite HistoryStore::underLock(const HistoryDocument& document, std::optional<double> timeout,
                                     const std::function<HistoryWrite(HistoryFile::Contents&)>& edit) {
    const std::string file = Locks::history(folder_);
    if (const auto problem = FileLock::problem(file)) {
        say(std::string("history: ") + problem->what());
        return HistoryWrite::failed;
    }
    const auto lock = FileLock::lock(file, timeout.value_or(lockTimeout_));
    if (!lock)
        return HistoryWrite::busy;
    try {
        HistoryFile::Contents contents = read(document);
        if (contents.state == HistoryFile::State::newer) {
            say("history: written by a newer version of Velmora — read only");
            return HistoryWrite::newer;
        }
        if (contents.state == HistoryFile::State::damaged)
            setAside(document);
        return edit(contents);
    } catch (const std::exception& error) {
        say(std::string("history: ") + error.what());
        return HistoryWrite::failed;
    }
}

HistoryWrite HistoryStore::enter(const HistoryVerification& mark, std::optional<double> timeout) {
    return underLock(verificationsFile, timeout, [&](HistoryFile::Contents& contents) {
        Verifications::enter(contents.verifications, mark);
        Verifications::bound(contents.verifications, maxEntries_);
        IO::mkdirs(folder_);
        IO::writeFileDurably(path(verificationsFile), HistoryFile::write(contents.verifications));
        return HistoryWrite::written;
    });
}

HistoryWrite HistoryStore::update(const std::string& id, const Changer& change, std::optional<double> timeout) {
    const HistoryWrite result = underLock(entriesFile, timeout, [&](HistoryFile::Contents& contents) {
        std::vector<HistoryEntry>& entries = contents.entries;
        const auto present = withId(entries, id);
        std::optional<Change> changed = change(present == entries.end() ? nullptr : &*present);
        if (!changed)
            return HistoryWrite::unchanged;
        HistoryEntry& entry = changed->entry;
        entry.id = id;
        if (!HistoryFile::isId(id)) {
            say("history: no valid entry id: " + id);
            return HistoryWrite::failed;
        }
        if (changed->files) {
            FileListStore::write(listPath(id), *changed->files);
            entry.fileList = "history/" + id + ".files.gz";
        }
        if (present == entries.end())
            entries.push_back(std::move(entry));
        else
            *present = std::move(entry);
        return save(std::move(entries));
    });
    return result == HistoryWrite::newer ? HistoryWrite::unchanged : result;
}

HistoryWrite HistoryStore::remove(const std::string& id, std::optional<double> timeout) {
    const HistoryWrite result = underLock(entriesFile, timeout, [&](HistoryFile::Contents& contents) {
        std::vector<HistoryEntry>& entries = contents.entries;
        const auto present = withId(entries, id);
        if (present == entries.end())
            return HistoryWrite::unchanged;
        keepVerifications(*present);
        entries.erase(present);
        return save(std::move(entries));
    });
    if (result == HistoryWrite::written)
        removeList(listPath(id));
    return result;
}

std::optional<std::vector<SourceFile>> HistoryStore::readFileList(const HistoryEntry& entry) const {
    // The stored name is not believed: the list of an entry can only lie under its id.
    if (!entry.fileList || !HistoryFile::isId(entry.id))
        return std::nullopt;
    return FileListStore::read(listPath(entry.id));
}

const HistoryEntry* HistoryStore::findForCard(const std::optional<CardKey>& key, const std::string& shape,
                                              const std::vector<HistoryEntry>& entries,
                                              const std::optional<std::string>& identity) {
    // A UUID says more than the serial; a time of creation is what is left to a user who may not read the UUID.
    const auto isUuid = [](const std::optional<std::string>& id) { return id && !id->starts_with("created:"); };
    const HistoryEntry* empty = nullptr;
    for (const HistoryEntry& entry : entries) {
        if (entry.card && isUuid(identity) && isUuid(entry.card->identity) &&
            !equalIgnoringCase(*identity, *entry.card->identity))
            continue;
        if (key ? !entry.card || entry.card->fsSerial != key->fsSerial || entry.card->capacity != key->capacity
                : entry.card || entry.shape != shape)
            continue;
        if (!HistoryRecords::holdsNothing(entry))
            return &entry;
        if (!empty)
            empty = &entry;
    }
    return empty;
}

std::string HistoryStore::newId(Timestamp finished) {
    std::random_device random;
    return fmt::format("{}-{:08x}", TimeText::utc(finished, "%Y%m%dT%H%M%SZ"), static_cast<std::uint32_t>(random()));
}

} // namespace velmora
