#include "memory/HistoryRecorder.h"

#include <chrono>

namespace velmora {

namespace {

std::chrono::duration<double> seconds(double s) { return std::chrono::duration<double>(s); }

} // namespace

HistoryRecorder::HistoryRecorder(double waitLimit, double retryDelay)
    : waitLimit_(waitLimit), retryDelay_(retryDelay), queue_(std::make_unique<SerialQueue>("offload.history-retry")) {}

HistoryRecorder::~HistoryRecorder() {
    {
        MutexLock lock(gate_);
        ending_ = true;
        wake_.notifyAll();
    }
    queue_.reset();
}

std::string HistoryRecorder::folder(const JobConfig& config, const std::string& support) {
    return config.historyFolder && !config.historyFolder->empty() ? *config.historyFolder : support;
}

HistoryWrite HistoryRecorder::attempt(const Pending& pending, std::string& why) const {
    constexpr std::string_view prefix = "history: ";
    // The last line that a failing store logs says why it failed.
    const Log log = [&](std::string_view line) {
        why = line.substr(line.starts_with(prefix) ? prefix.size() : 0);
        if (pending.log)
            pending.log(line);
    };
    HistoryStore store(pending.folder, waitLimit_, HistoryStore::maxEntriesDefault, log);
    try {
        return pending.write(store);
    } catch (const std::exception& error) {
        log(std::string(prefix) + error.what());
        return HistoryWrite::failed;
    }
}

void HistoryRecorder::record(const std::string& what, const std::string& folder, const Log& log,
                             const std::function<void()>& delayed, Done done, Write write) {
    auto pending = std::make_shared<Pending>(Pending{what, folder, log, std::move(write), std::move(done)});
    bool mustWait = false;
    {
        // What already waits goes first: a late "start" must never be written over its own "finished".
        MutexLock lock(gate_);
        mustWait = !pending_.empty();
    }
    HistoryWrite result = HistoryWrite::busy;
    std::string why;
    if (!mustWait)
        result = attempt(*pending, why);
    if (result != HistoryWrite::busy) {
        if (result == HistoryWrite::failed && log)
            log("history (" + what + "): not written");
        if (pending->done)
            pending->done(result == HistoryWrite::failed ? std::optional(why) : std::nullopt);
        return;
    }
    if (delayed)
        delayed();
    MutexLock lock(gate_);
    pending_.push_back(std::move(pending));
    if (!retrying_) {
        retrying_ = true;
        queue_->async([this] { retryLoop(); });
    }
}

void HistoryRecorder::retryLoop() {
    while (true) {
        std::shared_ptr<Pending> head;
        {
            MutexLock lock(gate_);
            if (pending_.empty() || ending_) {
                retrying_ = false;
                wake_.notifyAll();
                return;
            }
            head = pending_.front();
        }
        std::string why;
        const HistoryWrite result = attempt(*head, why);
        if (result == HistoryWrite::busy) {
            MutexLock lock(gate_);
            if (!ending_)
                wake_.waitFor(gate_, seconds(retryDelay_));
            continue;
        }
        if (head->log) {
            if (result == HistoryWrite::written)
                head->log("history: the " + head->what + " record written after the history was busy");
            else if (result == HistoryWrite::failed)
                head->log("history (" + head->what + "): not written");
        }
        if (head->done)
            head->done(result == HistoryWrite::failed ? std::optional(why) : std::nullopt);
        MutexLock lock(gate_);
        pending_.pop_front();
    }
}

bool HistoryRecorder::drain(double limit) {
    const auto deadline = std::chrono::steady_clock::now() + seconds(limit);
    while (waiting() > 0) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        MutexLock lock(gate_);
        wake_.waitFor(gate_, seconds(0.05));
    }
    return true;
}

std::size_t HistoryRecorder::waiting() const {
    MutexLock lock(gate_);
    return pending_.size();
}

} // namespace velmora
