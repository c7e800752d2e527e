#include "memory/HistoryStore.h"

#include "base/Text.h"

#include "engine/FolderLocks.h"
#include "memory/FileListStore.h"
#include "platform/FileLock.h"
#include "platform/IO.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <random>

namespace velmora {

namespace {

constexpr std::int64_t version = 1;
// 5,000 entries take some ten megabytes; ten times that is no history of ours.
constexpr std::int64_t largestHistory = 256 << 20;

bool isId(const std::string& id) {
    return !id.empty() && id.size() <= 64 && std::all_of(id.begin(), id.end(), [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' || c == '_';
    });
}

void newestFirst(std::vector<HistoryEntry>& entries) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const HistoryEntry& a, const HistoryEntry& b) { return a.finished > b.finished; });
}

auto withId(std::vector<HistoryEntry>& entries, const std::string& id) {
    return std::find_if(entries.begin(), entries.end(), [&](const HistoryEntry& e) { return e.id == id; });
}

// Decodes each entry as soon as the parser has it and takes it out of the document again: a history of thousands of
// cards is never held as JSON. What is left in "entries" after that is none.
class EntryReader {
public:
    // As nlohmann::json::parser_callback_t: false takes `value` out of the document.
    bool operator()(int depth, nlohmann::json::parse_event_t event, nlohmann::json& value) {
        using Event = nlohmann::json::parse_event_t;
        if (depth == 1 && event == Event::key) { // of a repeated key the last one counts
            inEntries_ = value == "entries";
            if (inEntries_) {
                entries_.clear();
                good_ = true;
            }
        }
        if (depth != 2 || event != Event::object_end || !inEntries_)
            return true;
        decode(value);
        return false;
    }
    bool good() const { return good_; }
    std::vector<HistoryEntry> take() { return std::move(entries_); }

private:
    void decode(const nlohmann::json& value) try {
        entries_.push_back(value.get<HistoryEntry>());
        good_ = good_ && isId(entries_.back().id);
    } catch (const std::exception&) {
        good_ = false;
    }

    std::vector<HistoryEntry> entries_;
    bool inEntries_ = false;
    bool good_ = true;
};

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

HistoryStore::Contents HistoryStore::read() const {
    Contents contents;
    std::string text;
    try {
        text = IO::readFile(path(), largestHistory);
    } catch (const IOError& error) {
        // A file that is there but cannot be read now must not be taken for an empty history and written over.
        if (error.code() != ENOENT)
            throw;
        return contents;
    }
    EntryReader reader;
    const nlohmann::json document = nlohmann::json::parse(text, std::ref(reader), false);
    const auto number = document.is_object() ? document.find("version") : document.end();
    if (!document.is_object() || number == document.end() || !number->is_number_integer()) {
        contents.state = State::damaged;
        return contents;
    }
    contents.state = number->get<std::int64_t>() > version ? State::newer : State::good;
    const auto left = document.find("entries");
    if (reader.good() && left != document.end() && left->is_array() && left->empty())
        contents.entries = reader.take();
    else if (contents.state == State::good)
        contents.state = State::damaged;
    return contents;
}

std::vector<HistoryEntry> HistoryStore::load() {
    const std::string file = Locks::history(folder_);
    const auto lock = FileLock::problem(file) ? std::nullopt : FileLock::lock(file, lockTimeout_);
    std::vector<HistoryEntry> entries;
    try {
        Contents contents = read();
        // Without the lock the damage may be another's half-finished doing; only its holder may set the file aside.
        if (contents.state == State::damaged && lock)
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
    nlohmann::json document = {{"version", version}, {"entries", entries}};
    IO::mkdirs(folder_);
    IO::writeFileDurably(path(), document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
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
        Contents contents = read();
        if (contents.state == State::newer) {
            say("history: written by a newer version of Velmora — read only");
            return HistoryWrite::unchanged;
        }
        if (contents.state == State::damaged)
            setAside();
        const HistoryWrite result = edit(contents.entries);
        return result == HistoryWrite::written ? save(std::move(contents.entries)) : result;
    } catch (const std::exception& error) {
        say(std::string("history: ") + error.what());
        return HistoryWrite::failed;
    }
}

HistoryWrite HistoryStore::update(const std::string& id, const Changer& change, std::optional<double> timeout) {
    return underLock(timeout, [&](std::vector<HistoryEntry>& entries) {
        const auto present = withId(entries, id);
        std::optional<Change> changed = change(present == entries.end() ? nullptr : &*present);
        if (!changed)
            return HistoryWrite::unchanged;
        HistoryEntry& entry = changed->entry;
        entry.id = id;
        if (!isId(id)) {
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
    if (!entry.fileList || !isId(entry.id))
        return std::nullopt;
    return FileListStore::read(listPath(entry.id));
}

const HistoryEntry* HistoryStore::findForCard(const std::optional<CardKey>& key, const std::string& shape,
                                              const std::vector<HistoryEntry>& entries,
                                              const std::optional<std::string>& identity) {
    // A UUID says more than the serial; a time of creation is what is left to a user who may not read the UUID.
    const auto isUuid = [](const std::optional<std::string>& id) { return id && !id->starts_with("created:"); };
    for (const HistoryEntry& entry : entries) {
        if (entry.card && isUuid(identity) && isUuid(entry.card->identity) &&
            !equalIgnoringCase(*identity, *entry.card->identity))
            continue;
        if (key ? entry.card && entry.card->fsSerial == key->fsSerial && entry.card->capacity == key->capacity
                : !entry.card && entry.shape == shape)
            return &entry;
    }
    return nullptr;
}

std::string HistoryStore::newId(Timestamp finished) {
    std::random_device random;
    return fmt::format("{}-{:08x}", TimeText::utc(finished, "%Y%m%dT%H%M%SZ"), static_cast<std::uint32_t>(random()));
}

} // namespace velmora
