#pragma once

#include "base/Mutex.h"
#include "base/SerialQueue.h"
#include "memory/HistoryStore.h"
#include "records/JobConfig.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// Writes history records for jobs without ever holding one up: a history that another process holds is tried again in
// the background until it is free. One per process, made by the front end, which calls `drain` before it quits.
class HistoryRecorder {
public:
    using Write = std::function<HistoryWrite(HistoryStore&)>;
    using Done = std::function<void(const std::optional<std::string>& lost)>; // why, when it was

    // Seconds that one attempt waits for the lock, and the pause between two attempts of the retry queue.
    explicit HistoryRecorder(double waitLimit = 2.0, double retryDelay = 1.0);
    ~HistoryRecorder(); // gives up what is still waiting
    HistoryRecorder(const HistoryRecorder&) = delete;
    HistoryRecorder& operator=(const HistoryRecorder&) = delete;

    // Where the job's history lies: the folder it names, else `support`, the application-support folder. A job that
    // records nothing there reads it all the same: what it remembers may deny a promise.
    static std::string folder(const JobConfig& config, const std::string& support);

    // One attempt now. When the history is busy, `delayed` is called and the write waits its turn in the background.
    // `done` is called once, from this thread or the background one: with the reason when the record is lost.
    void record(const std::string& what, const std::string& folder, const Log& log,
                const std::function<void()>& delayed, Done done, Write write);

    // Waits until nothing is queued, at most `seconds`; true when nothing is.
    bool drain(double seconds);
    std::size_t waiting() const;

private:
    struct Pending {
        std::string what;
        std::string folder;
        Log log;
        Write write;
        Done done;
    };

    HistoryWrite attempt(const Pending& pending, std::string& why) const;
    void retryLoop();

    const double waitLimit_;
    const double retryDelay_;
    mutable Mutex gate_;
    Condition wake_;
    std::deque<std::shared_ptr<Pending>> pending_ GUARDED_BY(gate_);
    bool retrying_ GUARDED_BY(gate_) = false;
    bool ending_ GUARDED_BY(gate_) = false;
    std::unique_ptr<SerialQueue> queue_; // last: its thread ends first
};

} // namespace velmora
