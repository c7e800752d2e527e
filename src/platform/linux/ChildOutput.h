#pragma once

#include "base/Mutex.h"
#include "platform/ChildProcess.h"
#include "platform/linux/Descriptor.h"

#include <atomic>
#include <thread>

namespace velmora {

// Reads both streams of a child on one thread until they end, so that a full pipe never holds the child up.
class ChildOutput {
public:
    // `options` stays with the caller and must outlive this. No error pipe: it goes to the output.
    ChildOutput(const ChildProcess::Options& options, Descriptor output, Descriptor error);
    ~ChildOutput();
    ChildOutput(const ChildOutput&) = delete;
    ChildOutput& operator=(const ChildOutput&) = delete;

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
    bool ended_ GUARDED_BY(mutex_) = false;
    std::thread thread_; // last: it uses everything above
};

} // namespace velmora
