#include "proxies/ClipAnalyzer.h"

#include "base/Flag.h"
#include "base/Mutex.h"
#include "memory/CardNaming.h"
#include "proxies/LutResolver.h"
#include "proxies/Thumbnails.h"

#include <algorithm>
#include <exception>
#include <thread>

namespace velmora {

namespace {

// Works on the clips out of order and gives them back in order.
class Workers {
public:
    using Work = std::function<AnalyzedClip(std::size_t)>;

    Workers(std::size_t count, std::size_t threads, Work work) : work_(std::move(work)), results_(count) {
        for (std::size_t i = 0; i < threads; ++i)
            threads_.emplace_back([this] { run(); });
    }
    ~Workers() {
        stop_.set();
        for (std::thread& thread : threads_)
            thread.join();
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Waits for that clip; throws what its work has thrown.
    AnalyzedClip take(std::size_t index) {
        MutexLock lock(mutex_);
        while (!results_[index].done)
            changed_.wait(mutex_);
        if (results_[index].failure)
            std::rethrow_exception(results_[index].failure);
        return std::move(results_[index].clip);
    }

private:
    struct Result {
        bool done = false;
        AnalyzedClip clip;
        std::exception_ptr failure;
    };

    void run() {
        while (true) {
            std::size_t index = 0;
            {
                MutexLock lock(mutex_);
                if (stop_.isSet() || next_ == results_.size())
                    return;
                index = next_++;
            }
            Result result;
            try {
                result.clip = work_(index);
            } catch (...) {
                result.failure = std::current_exception();
            }
            result.done = true;
            MutexLock lock(mutex_);
            results_[index] = std::move(result);
            changed_.notifyAll();
        }
    }

    Work work_;
    Flag stop_;
    Mutex mutex_;
    Condition changed_;
    std::vector<Result> results_ GUARDED_BY(mutex_);
    std::size_t next_ GUARDED_BY(mutex_) = 0;
    std::vector<std::thread> threads_;
};

std::size_t threadsFor(std::size_t clips, unsigned wanted) {
    const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
    return std::min<std::size_t>(clips, wanted == 0 ? processors : std::min(wanted, 2 * processors));
}

} // namespace

void ClipAnalyzer::analyze(const std::vector<Clip>& clips, const std::string& cardPath, const Wish& wish,
                           const std::function<void(AnalyzedClip&&)>& take, const IsCancelled& isCancelled) const {
    Flag abandoned;
    std::optional<Thumbnails> pictures;
    if (wish.thumbnails)
        pictures.emplace(probe_);
    const IsCancelled isOver = [&] { return abandoned.isSet() || (isCancelled && isCancelled()); };
    Workers workers(clips.size(), threadsFor(clips.size(), wish.atOnce), [&](std::size_t i) {
        if (isOver())
            throw Cancelled();
        return analyzeOne(clips[i], cardPath, wish, pictures ? &*pictures : nullptr, isOver);
    });
    try {
        for (std::size_t i = 0; i < clips.size(); ++i)
            take(workers.take(i));
    } catch (...) {
        abandoned.set();
        throw;
    }
}

AnalyzedClip ClipAnalyzer::analyzeOne(const Clip& clip, const std::string& cardPath, const Wish& wish,
                                      Thumbnails* pictures, const IsCancelled& isCancelled) const {
    AnalyzedClip result;
    ClipEntry& entry = result.entry;
    entry.clip = clip;
    if (clip.format == ClipFormat::video && !probe_.tools().ffprobe)
        entry.probeError = "ffprobe not found";
    else if (clip.format != ClipFormat::video)
        entry.probeError = probe_.unsupportedReason(clip.format);
    try {
        if (!entry.probeError)
            entry.info = probe_.probe(clip, cardPath, isCancelled);
        if (entry.info)
            if (auto other = probe_.reclassifyUndecodableMXF(clip, cardPath, *entry.info, isCancelled)) {
                entry.clip = std::move(other->clip);
                entry.info = std::move(other->info);
            }
    } catch (const ToolError& error) {
        if (isCancelled())
            throw Cancelled();
        entry.probeError = error.what();
    }
    result.reel = ReelResolver::resolve(entry.clip, entry.info, wish.cardName);
    entry.lut =
        LutResolver::resolve(entry.clip, entry.info, ClipProbe::pathOf(entry.clip, cardPath), wish.settings, catalog_);
    if (pictures && entry.info)
        entry.thumbnails = pictures->of(entry.clip, cardPath, *entry.info, *entry.lut, isCancelled);
    if (isCancelled())
        throw Cancelled();
    return result;
}

} // namespace velmora
