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
#include <random>

namespace velmora {

namespace {

// 5,000 entries take some ten megabytes; ten times that is no history of ours.
constexpr std::int64_t largestHistory = 256 << 20;

void newestFirst(std::vector<HistoryEntry>& entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const HistoryEntry& a, const HistoryEntry& b) { return a.finished > b.finished; });
}

auto withId(std::vector<HistoryEntry>& entries, const std::string& id) {
    return std::find_if(entries.begin(), entries.end(), [&](const HistoryEntry& e) { return e.id == id; });
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

std::string HistoryStore::path() const { return folder_ + "/history.json"; }

std::string HistoryStore::listPath(const std::string& id) const { return folder_ + "/history/" + id + ".files.gz"; }

void HistoryStore::say(const std::string& text) const {
    if (log_)
        log_(text);
}

HistoryFile::Contents HistoryStore::read() const {
    std::string text;
    try {
        text = IO::readFile(path(), largestHistory);
    } catch (const IOError& error) {
        // A file that is there but cannot be read now must not be taken for an empty history and written over.
        if (error.code() != ENOENT)
            throw;
        return {};
    }
    return HistoryFile::read(text);
}

std::vector<HistoryEntry> HistoryStore::load(const IsCancelled& isCancelled) {
    const std::string file = Locks::history(folder_);
    const auto lock = FileLock::problem(file) ? std::nullopt : FileLock::lock(file, lockTimeout_, isCancelled);
    std::vector<HistoryEntry> entries;
    try {
        HistoryFile::Contents contents = read();
        // Without the lock the damage may be another's half-finished doing; only its holder may set the file aside.
        if (contents.state == HistoryFile::State::damaged && lock)
            setAside();
        entries = std::move(contents.entries);
    } catch (const std::exception& error) {
        say(std::string("history: ") + error.what());
    }
    newestFirst(entries);
    return entries;
}

void HistoryStore::setAside() const {
    const std::string base = path() + ".corrupt-" + TimeText::local(Timestamp::now(), "%Y%m%d-%H%M%S");
    std::string target = base;
    for (int n = 2; IO::exists(target); ++n)
        target = base + "-" + std::to_string(n);
    IO::renameNoReplace(path(), target);
    say("history: damaged history.json set aside as " + target);
}

HistoryWrite HistoryStore::save(std::vector<HistoryEntry> entries) const {
    newestFirst(entries);
    std::vector<std::string> dropped;
    while (entries.size() > maxEntries_) {
        dropped.push_back(entries.back().id);
        entries.pop_back();
    }
    IO::mkdirs(folder_);
    IO::writeFileDurably(path(), HistoryFile::write(entries));
    for (const std::string& id : dropped)
        removeList(listPath(id));
    return HistoryWrite::written;
}

HistoryWrite HistoryStore::underLock(std::optional<double> timeout,
                                     const std::function<HistoryWrite(std::vector<HistoryEntry>&)>& edit) {
    const std::string file = Locks::history(folder_);
    if (const auto problem = FileLock::problem(file)) {
        say(std::string("history: ") + problem->what());
        return HistoryWrite::failed;
    }
    const auto lock = FileLock::lock(file, timeout.value_or(lockTimeout_));
    if (!lock)
        return HistoryWrite::busy;
    try {
        HistoryFile::Contents contents = read();
        if (contents.state == HistoryFile::State::newer) {
            say("history: written by a newer version of Velmora — read only");
            return HistoryWrite::newer;
        }
        if (contents.state == HistoryFile::State::damaged)
            setAside();
        const HistoryWrite result = edit(contents.entries);
        return result == HistoryWrite::written ? save(std::move(contents.entries)) : result;
    } catch (const std::exception& error) {
        say(std::string("history: ") + error.what());
        return HistoryWrite::failed;
    }
}

HistoryWrite HistoryStore::update(const std::string& id, const Changer& change, std::optional<double> timeout) {
    const HistoryWrite result = underLock(timeout, [&](std::vector<HistoryEntry>& entries) {
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
        return HistoryWrite::written;
    });
    return result == HistoryWrite::newer ? HistoryWrite::unchanged : result;
}

HistoryWrite HistoryStore::remove(const std::string& id, std::optional<double> timeout) {
    const HistoryWrite result = underLock(timeout, [&](std::vector<HistoryEntry>& entries) {
        const auto present = withId(entries, id);
        if (present == entries.end())
            return HistoryWrite::unchanged;
        entries.erase(present);
        return HistoryWrite::written;
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
