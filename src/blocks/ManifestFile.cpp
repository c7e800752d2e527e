#include "blocks/ManifestFile.h"

#include "base/Mutex.h"
#include "base/Text.h"
#include "platform/AppendFile.h"
#include "platform/File.h"
#include "platform/IO.h"

#include <cstring>
#include <memory>

// The file: UTF-8, one JSON object a line with sorted keys, each line ended by a line feed (keys: ManifestRecord).
//
// What is on the disk when `append` has returned: every line of the call, and the name of the file. When it throws, or
// the power goes while it runs, any beginning of its bytes may be there, or garbage of that length; lines of earlier
// calls are whole. Only such a tail is lost: the next append puts a line feed before its own first line unless the tail
// ends with one, and after a failed append in this process it does so in any case, because the cached end of the file
// then need not be what the disk holds. The file is never rewritten or cut, so nothing that was promised can be lost by
// a repair.
//
// Reading goes line by line and trusts no length: what is no record is passed over.

namespace velmora {

namespace {

// A line of a file of 1 TB in blocks of 1 MiB has 19 MB; longer ones are no work of ours.
constexpr std::size_t maxLine = std::size_t{64} << 20;
constexpr std::int64_t maxFile = std::int64_t{2} << 30;
constexpr std::size_t readBytes = std::size_t{1} << 20;

std::string reportFolder(const std::string& cardPath) { return cardPath + "/_REPORT"; }

// Writers of one manifest take turns. There is one for each card folder that this process has written to.
struct Turn {
    Mutex mutex;
    bool suspectTail GUARDED_BY(mutex) = false;
    // The names of the folder and the file are on the disk. That they exist is no proof: a process that was killed may
    // have created them a moment ago.
    bool namesFlushed GUARDED_BY(mutex) = false;
};

std::shared_ptr<Turn> turnOf(const std::string& path) {
    static Mutex tableLock;
    static std::map<std::string, std::shared_ptr<Turn>> table;
    const MutexLock hold(tableLock);
    std::shared_ptr<Turn>& turn = table[pathKey(path)];
    if (!turn) {
        turn = std::make_shared<Turn>();
    }
    return turn;
}

// Cuts a stream of bytes into lines. A line that is too long is dropped whole, not cut.
class LineCutter {
public:
    // Calls `take` for every line that `bytes` completes; false from it stops. Returns whether to go on.
    template <class Take>
    bool feed(std::string_view bytes, Take take) {
        while (!bytes.empty()) {
            const std::size_t end = bytes.find('\n');
            const std::string_view part = bytes.substr(0, end);
            if (end == std::string_view::npos) {
                keep(part);
                return true;
            }
            bool goOn = true;
            if (line_.empty() && !tooLong_) {
                goOn = part.empty() || take(part); // the usual case: the line lies whole in the buffer
            } else {
                keep(part);
                goOn = tooLong_ || take(std::string_view(line_));
            }
            line_.clear();
            tooLong_ = false;
            if (!goOn) {
                return false;
            }
            bytes.remove_prefix(end + 1);
        }
        return true;
    }
    // What stands behind the last line feed: a torn line, or a whole one whose line feed is still to come.
    std::string_view rest() const noexcept { return tooLong_ ? std::string_view{} : std::string_view(line_); }

private:
    void keep(std::string_view part) {
        tooLong_ = tooLong_ || line_.size() + part.size() > maxLine;
        if (tooLong_) {
            line_.clear();
        } else {
            line_ += part;
        }
    }

    std::string line_;
    bool tooLong_ = false;
};

} // namespace

std::string ManifestFile::path(const std::string& cardPath) {
    return reportFolder(cardPath) + "/" + std::string(fileName);
}

void ManifestFile::append(const std::string& cardPath, std::span<const ManifestRecord> records) {
    if (records.empty()) {
        return;
    }
    std::string bytes;
    for (const ManifestRecord& record : records) {
        bytes += record.line();
        bytes += '\n';
    }
    const std::string folder = reportFolder(cardPath);
    IO::mkdirBelow(folder);
    const std::string manifest = path(cardPath);
    const std::shared_ptr<Turn> turn = turnOf(manifest);
    // Held across the writing on purpose: two interleaved appends could each seal off the other's line.
    const MutexLock hold(turn->mutex);
    AppendFile file(manifest);
    const auto last = file.lastByte();
    if (last && (*last != '\n' || turn->suspectTail)) {
        bytes.insert(0, 1, '\n');
    }
    turn->suspectTail = true;
    file.append(bytes);
    file.flush();
    if (file.created() || !turn->namesFlushed) {
        IO::syncFolder(cardPath);
        IO::syncFolder(folder);
        turn->namesFlushed = true;
    }
    file.close();
    turn->suspectTail = false;
}

void ManifestFile::forEach(const std::string& cardPath, const std::function<bool(ManifestRecord&&)>& each) {
    const auto take = [&](std::string_view line) {
        auto record = ManifestRecord::parse(line);
        return !record || each(std::move(*record));
    };
    try {
        UncachedReader file = UncachedReader::beneath(cardPath, "_REPORT/" + std::string(fileName));
        AlignedBuffer buffer(readBytes);
        LineCutter lines;
        for (std::int64_t offset = 0; offset < maxFile;) {
            const std::size_t got = file.readAt(buffer.span(), offset);
            if (!lines.feed({reinterpret_cast<const char*>(buffer.data()), got}, take)) {
                return;
            }
            if (got < buffer.size()) {
                if (!lines.rest().empty()) {
                    take(lines.rest());
                }
                return;
            }
            offset += static_cast<std::int64_t>(got);
        }
    } catch (const IOError&) {
        // Without its manifest a run has more to do, but nothing is wrong.
    }
}

std::vector<ManifestRecord> ManifestFile::read(const std::string& cardPath) {
    std::vector<ManifestRecord> records;
    forEach(cardPath, [&](ManifestRecord&& record) {
        records.push_back(std::move(record));
        return true;
    });
    return records;
}

std::map<std::string, ManifestRecord> ManifestFile::files(std::span<const ManifestRecord> records,
                                                          std::int64_t generation) {
    std::map<std::string, ManifestRecord> byKey;
    for (const ManifestRecord& record : records) {
        if (record.kind == ManifestRecord::fileKind && record.gen == generation) {
            byKey[pathKey(record.path)] = record;
        }
    }
    return byKey;
}

std::map<std::string, PartCheckpoint> ManifestFile::parts(std::span<const ManifestRecord> records,
                                                          std::int64_t generation) {
    std::map<std::string, PartCheckpoint> byKey;
    for (const ManifestRecord& record : records) {
        if (record.kind != ManifestRecord::partKind || record.gen != generation || record.blockSize <= 0) {
            continue;
        }
        auto blocks = record.blockValues();
        if (!blocks) {
            continue;
        }
        const std::string key = pathKey(record.path);
        if (record.first == 0) {
            byKey[key] = {record.path, record.size, record.modified, record.blockSize, std::move(*blocks)};
            continue;
        }
        const auto found = byKey.find(key);
        if (found == byKey.end()) {
            continue;
        }
        PartCheckpoint& so = found->second;
        const bool joins = so.size == record.size && so.modified == record.modified &&
                           so.blockSize == record.blockSize &&
                           static_cast<std::int64_t>(so.blocks.size()) == record.first;
        if (joins) {
            so.blocks.insert(so.blocks.end(), blocks->begin(), blocks->end());
        }
    }
    return byKey;
}

} // namespace velmora
