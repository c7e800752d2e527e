#pragma once

#include "base/Mutex.h"
#include "platform/ChildProcess.h"
#include "platform/linux/Descriptor.h"

#include <atomic>
#include <thread>

namespace velmora {

// The thread that starts a child, reads both of its streams until they end, so that a full pipe never holds it up, and
// lives until join(): the child is killed when the thread that started it ends (StartChild.h).
class ChildOutput {
public:
    // `options` stays with the caller and must outlive this; `start` answers 0 or an errno. A pipe may be missing.
    ChildOutput(const ChildProcess::Options& options, Descriptor output, Descriptor error, std::function<int()> start);
    ~ChildOutput();
    ChildOutput(const ChildOutput&) = delete;
    ChildOutput& operator=(const ChildOutput&) = delete;

    int started();                   // what `start` answered; waits for it
    bool waitForEnd(double seconds); // false: somebody still holds a pipe open
    void abandon() noexcept;         // stops reading
    void join();

    bool tooLong() const noexcept { return tooLong_; }
    // After join().
    const std::string& output() const noexcept { return output_; }
    const std::string& errorTail() const noexcept { return errorTail_; }

private:
    // Splits a stream into lines for a callback.
    struct Lines {
        const std::function<void(std::string_view)>& call;
        std::string partial = {};
        void add(std::string_view bytes);
        void end();

        void deliver();
    };

    void live(const std::function<int()>& start);
    void readAll();
    bool readSome(Descriptor& from, bool isError);
    void take(std::string_view bytes, bool isError);

    const ChildProcess::Options& options_;
    Descriptor outputPipe_, errorPipe_, wake_;
    Lines outputLines_, errorLines_;
    std::string output_, errorTail_;
    std::atomic<bool> tooLong_{false};

    Mutex mutex_;
    Condition condition_;
    std::optional<int> started_ GUARDED_BY(mutex_);
    bool ended_ GUARDED_BY(mutex_) = false;
    bool released_ GUARDED_BY(mutex_) = false;
    std::thread thread_; // last: it uses everything above
};

} // namespace velmora
