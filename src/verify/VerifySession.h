#pragma once

#include "base/Errors.h"
#include "base/PauseGate.h"
#include "records/Clip.h"
#include "records/FileState.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct OffloadReport;

// All the reading that proves the copies of one card right, while its proxies are rendered. One destination, the
// primary, is read by the render itself, through taps; everything else by background threads, one a volume, which keep
// off the primary's disk while a clip is rendered. What the render left open is read at the end. So each byte of a
// destination is read once.
//
// Created when the copy has ended; `startBackground`; `prepare` and the end of its lease for each clip; `finish`;
// `close`. All calls from any thread, but `finish` once. A disk that hangs keeps its thread; the thread keeps what it
// needs, and nobody waits for it longer than the limits say.
class VerifySession {
public:
    struct Inputs {
        std::vector<std::string> cardPaths; // a card folder for each destination
        // Block hashes of the source, parallel to the report's files; empty where there are none.
        std::vector<std::vector<std::uint64_t>> blocks;
        std::int64_t blockSize = 0;
        std::vector<double> rates;            // of writing, per destination; the fastest becomes the primary …
        std::optional<std::size_t> preferred; // … unless this one can
        // Per destination: why what the render reads cannot verify it; none when it can.
        std::vector<std::optional<std::string>> classicWhy;
        // Reads the card again: the hash of one block, absent when it cannot be read. May be empty. Called by `finish`.
        std::function<std::optional<std::uint64_t>(std::size_t file, std::int64_t block)> cardBlock;
        // Throws when a card folder is not there any more, or another one is. May be empty. Called ahead of each file
        // by the threads that read, and one whose disk hangs outlives the session: it must own what it asks.
        std::function<void(const std::string& cardPath)> check;
    };
    struct Limits {
        std::chrono::milliseconds prepare{60'000}; // for a disk to move while a clip waits for it
        std::chrono::milliseconds read{60'000};    // the same in `finish` and `close`
    };

    // `report` is that of the copy; only its files are looked at, and no reference is kept. The gate outlives this.
    VerifySession(const OffloadReport& report, Inputs inputs, PauseGate& gate, Limits limits);
    VerifySession(const OffloadReport& report, Inputs inputs, PauseGate& gate);
    ~VerifySession(); // closes
    VerifySession(const VerifySession&) = delete;
    VerifySession& operator=(const VerifySession&) = delete;

    void startBackground();

    // What a renderer holds while it reads one clip. When it ends, the background threads get the disk back. It may
    // outlive the session. Any thread.
    class Lease {
    public:
        ~Lease();
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        // Read this instead of the file; none: read the file.
        const std::optional<std::string>& url() const noexcept { return url_; }
        // A number that grows while what stands at `url` is read; 0 without one.
        std::int64_t activity() const { return activity_ ? activity_() : 0; }
        void end(); // once; later calls do nothing

    private:
        friend class VerifySession;
        Lease() = default;
        std::optional<std::string> url_;
        std::function<std::int64_t()> activity_;
        std::function<void()> release_;
        std::once_flag once_;
    };
    // Called before a clip is rendered from this destination. Null: the render reads the file, and that proves nothing.
    // The files of a RAW clip are verified here, and the call returns when that is done; its lease has no `url`.
    std::unique_ptr<Lease> prepare(const Clip& clip, std::size_t destination);

    struct Outcome {
        std::vector<std::vector<DestFileResult>> results; // per destination, parallel to the report's files
        bool verified = false;                            // all was read to the end, whatever was found
        std::vector<std::string> notes;
        std::vector<std::int64_t> throughCache; // per destination: files whose data may have come from memory
    };
    // Reads what is left and waits for everybody. `pausing` is the caller's worker, which does not count as working
    // meanwhile. Cancelled: what was found so far, not `verified` and without notes.
    Outcome finish(PauseGate::Worker* pausing, const IsCancelled& isCancelled);
    // The results up to now, for a report that is written meanwhile; never `verified` as a whole. A file whose blocks
    // the render has read and found matching is verified.
    Outcome soFar() const;
    // Puts the states of all files into the report that the session was made from. With a `verified` outcome also that,
    // the methods and the notes, and it is not pending any more.
    void record(const Outcome& outcome, OffloadReport& report) const;

    // Stops all reading; returns at once.
    void stop();
    // Stops, ends the address of every tap, and waits for the threads, but not for a disk that hangs.
    void close();

    std::optional<std::size_t> primary() const noexcept;
    std::vector<std::int64_t> bytesToVerify() const; // per destination
    std::vector<std::int64_t> verifiedBytes() const; // of them
    std::vector<std::string> currentFiles() const;   // that background threads read now

private:
    class Core;
    const std::unique_ptr<Core> core_;
};

} // namespace velmora
