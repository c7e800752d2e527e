#pragma once

#include "base/Counter.h"
#include "base/Errors.h"
#include "base/PauseGate.h"
#include "base/SerialQueue.h"
#include "blocks/ReadBack.h"
#include "engine/BufferPool.h"
#include "engine/DeviceFlush.h"
#include "engine/SourceClock.h"
#include "records/FileState.h"
#include "records/ManifestRecord.h"
#include "records/SourceFile.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

class HeldFolders;
class SourceHasher;
struct OffloadOptions;

// Paths of the card that this program's own temporary names could hit.
struct NameClashes {
    std::set<std::string> partNames; // collision keys of files of the card that look like part files
    // Collision keys that two or more files of the card share, with the first of these.
    std::map<std::string, std::string> folded;
    bool flushFile = false; // the card, or the backup, has a file ".offload-flush" at its top
};

// Writes one destination. The reader's calls queue their work on "offload.dest{n}" and return at once. That queue does
// everything else, one step after another. So a slow disk holds up nobody until the buffers run out.
//
// A file is written under its part name and gets its final name when it is complete. What a power cut leaves:
//   - before the rename: the part file, and "part" lines for the blocks that a checkpoint has flushed;
//   - after the rename, before the flush that covers it: the final name, perhaps with missing data, and no "file" line;
//   - after that flush: a durable file. Only then is its "file" line appended.
// Files of `fullSyncThreshold` and more are flushed alone, with their folder. All others wait for a flush of the whole
// device. It comes after the last file, at a pause, and when enough files or bytes wait (`waitingFiles`,
// `waitingBytes`), so that a crash in the last minute does not cost a whole long card. Files whose flush failed stay
// written and get no line. The read-back tells what of them is on the disk.
//
// After an error this destination does without the file, and the next file starts afresh.
class DestWriter {
public:
    struct Settings {
        std::size_t index = 0;
        std::string cardPath;
        std::string topFolder;             // see DeviceFlush
        const HeldFolders* held = nullptr; // the card folder is one of them; null: it is not checked
        const OffloadOptions* options = nullptr;
        const std::vector<SourceFile>* files = nullptr;
        const NameClashes* clashes = nullptr;
        SourceHasher* hasher = nullptr;
        const SourceClock* clock = nullptr;
        std::int64_t generation = 1;
        // The run finishes an interrupted one, whose part files and final names may be replaced. Any other run refuses
        // every name that exists.
        bool resuming = false;
        std::function<void(std::size_t file, const std::string& finalPath)> beforeRename;
        Log log;
    };

    // Throws when the card folder cannot be opened, or is not the one that is held.
    explicit DestWriter(Settings settings);
    ~DestWriter();

    // "DCIM/A001.MOV" is written as "DCIM/.A001.MOV.offload-part". A name that would be too long for a folder entry is
    // cut and told apart by a hash.
    static std::string partName(std::string_view relPath);

    // Called before the first file: these folders, relative to the card folder, must become durable too, also when
    // empty.
    void keepFolders(const std::set<std::string, std::less<>>& folders);

    // The reader's calls. Every chunk is released by the writer.
    void begin(std::size_t file);
    void beginResume(std::size_t file, const PartCheckpoint& checkpoint);
    void write(Chunk& chunk);
    void finish(std::size_t file);
    void abort(std::size_t file, std::string reason);
    void abortQuietly(std::size_t file, std::string reason); // the same for a file without an open part file
    // A file of one chunk, or an empty one (nullptr), from beginning to end.
    void whole(std::size_t file, Chunk* chunk);
    // The file is on the disk already; with `record` it gets a line in this generation.
    void adopt(std::size_t file, bool record);
    // Called at a pause: flushes the complete files, then writes their lines.
    void flushComplete();
    void flushDevice();
    // Reads back every written file through the memory of `chunk`, which it releases. Ends early when cancelled.
    void verify(Chunk& chunk, PauseGate& gate, IsCancelled isCancelled);
    // Drives the small files of this run out of the page cache. Ends early when cancelled.
    void evict(PauseGate& gate, IsCancelled isCancelled);
    // Waits for everything queued so far.
    void drain() { queue_.drain(); }

    // Any thread:
    const std::string& cardPath() const noexcept { return set_.cardPath; }
    std::size_t index() const noexcept { return set_.index; }
    std::int64_t written() const noexcept { return written_.value(); }
    std::int64_t handled() const noexcept { return handled_.value(); } // bytes taken in, written or not
    std::int64_t verified() const noexcept { return verified_.value(); }
    std::int64_t failures() const noexcept { return failures_.value(); }
    std::int64_t toVerify() const noexcept { return toVerify_.value(); } // bytes; 0 before the read-back begins
    std::optional<std::size_t> verifyingNow() const noexcept;

    // After drain():
    const std::vector<DestFileResult>& results() const noexcept { return results_; }
    // Blocks that a read-back found wrong in two reads, file by file in their order.
    struct Wrong {
        std::size_t file;
        std::vector<ReadBack::WrongBlock> blocks;
    };
    const std::vector<Wrong>& wrong() const noexcept { return wrong_; }
    // The second digest of a file that was read back; empty where it was not verified.
    const std::string& xxh128(std::size_t file) const noexcept { return xxh128_[file]; }
    bool wasWritten(std::size_t file) const noexcept { return writtenHere_[file]; } // by this run
    // True when all that this run wrote is durable. A failed flush may have lost files without a trace: then only a
    // read-back after a successful flush tells.
    bool lasts(bool readBack) const noexcept { return deviceFlushed_ && (readBack || !flushFailed_); }
    std::int64_t cachedReads() const noexcept { return cachedReads_; }
    std::int64_t busyNanos() const noexcept { return busyNanos_; }
    std::int64_t idleNanos() const noexcept { return idleNanos_; }
    std::int64_t needlesslyIdleNanos() const noexcept { return needlessNanos_; }
    // Whether large files went past the page cache; none when there was none.
    std::optional<bool> unbuffered() const noexcept { return unbuffered_; }
    struct Unstable {
        std::size_t file;
        std::vector<std::int64_t> blocks;
    };
    const std::vector<Unstable>& unstable() const noexcept { return unstable_; }

    // Up to this size a file goes through the cache: it costs no wait for the device, and one flush covers thousands.
    static constexpr std::int64_t throughCacheLimit = std::int64_t{1} << 20;
    static constexpr std::size_t waitingFiles = 16384;
    static constexpr std::int64_t waitingBytes = std::int64_t{4} << 30;

private:
    class Turn;
    struct Waiting {
        std::size_t file;
        bool adopted;
    };
    template <class F>
    void post(F&& work);
    const SourceFile& fileAt(std::size_t file) const { return (*set_.files)[file]; }
    std::string finalPath(std::size_t file) const { return set_.cardPath + "/" + fileAt(file).relPath; }
    bool goesThroughCache(std::size_t file) const { return fileAt(file).size <= throughCacheLimit; }
    bool flushedAlone(std::size_t file) const;

    void checkFolder() const; // throws when the disk has gone
    void doBegin(std::size_t file, const PartCheckpoint* checkpoint);
    void openPart(std::size_t file, bool continuing);
    void doWrite(Chunk& chunk);
    void doFinish(std::size_t file);
    void makeFinal(std::size_t file);
    void checkpoint();
    void doVerify(std::span<std::byte> buffer, PauseGate::Worker& worker, const IsCancelled& isCancelled);
    void fail(std::size_t file, std::string error);
    void dropPart() noexcept;
    void record(std::size_t file);
    void wait(std::size_t file, bool adopted);
    bool flushWaiting();
    void appendWaiting();
    std::optional<std::string> mismatch(std::size_t file) const;
    bool hasLine(std::size_t file) const;
    ManifestRecord line(std::size_t file) const;
    void say(const std::string& text) const noexcept;

    const Settings set_;
    DeviceFlush flush_;
    Counter written_;
    Counter handled_;
    Counter verified_;
    Counter failures_;
    Counter toVerify_;
    std::atomic<std::int64_t> verifyingNow_{-1};

    // Used on the queue only.
    std::optional<UncachedWriter> part_;
    std::string partPath_;
    std::optional<std::size_t> current_;
    std::optional<std::string> currentError_;
    std::vector<std::uint64_t> blockHashes_; // of the current file, as written
    std::size_t checkpointed_ = 0;           // how many of them a "part" line names
    std::vector<DestFileResult> results_;
    std::vector<bool> writtenHere_;
    std::vector<std::string> xxh128_; // by file; from the read-back
    std::vector<Waiting> waiting_;    // for the device flush
    std::int64_t waitingSize_ = 0;
    bool deviceFlushed_ = false; // the last flush of the device succeeded
    bool flushFailed_ = false;   // at least one flush failed
    std::optional<bool> unbuffered_;
    std::int64_t cachedReads_ = 0;
    std::vector<Unstable> unstable_;
    std::vector<Wrong> wrong_;
    std::int64_t busyNanos_ = 0; // in calls that write
    std::int64_t idleNanos_ = 0;
    std::int64_t needlessNanos_ = 0;
    std::int64_t turnEnded_ = 0;
    std::int64_t sourceAtEnd_ = 0;
    bool copying_ = true; // idle time counts only while this is true

    SerialQueue queue_; // last: its tasks use what stands above
};

} // namespace velmora
