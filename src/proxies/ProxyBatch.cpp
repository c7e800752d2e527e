#include "proxies/ProxyBatch.h"

#include "base/Text.h"
#include "disks/SpaceEstimator.h"
#include "platform/IO.h"
#include "proxies/CheckedRender.h"
#include "proxies/ClipProbe.h"
#include "proxies/ProxyOrigin.h"
#include "proxies/ProxyPreflight.h"
#include "proxies/ProxyRenderer.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <future>

namespace velmora {

using Clock = std::chrono::steady_clock;

ProxyBatch::ProxyBatch(const ClipProbe& probe, ProxyRenderer& renderer, Wish wish, Log log,
                       std::vector<ClipEntry> clips)
    : probe_(probe), renderer_(renderer), wish_(std::move(wish)), log_(std::move(log)) {
    for (ClipEntry& entry : clips) {
        lengths_.push_back(SpaceEstimator::seconds(entry.clip, entry.info ? &*entry.info : nullptr));
        items_.push_back({std::move(entry)});
    }
}

void ProxyBatch::claimFolder() {
    try {
        IO::mkdirs(wish_.out);
        lock_ = FileLock::tryLockFolder(wish_.out);
    } catch (const IOError& error) {
        throw OffloadError::preflight(PreflightCode::destinationNotWritable,
                                      fmt::format("The folder for the proxies cannot be used: {}", error.what()));
    }
    if (!lock_)
        throw OffloadError::preflight(PreflightCode::other,
                                      fmt::format("Another run is rendering proxies into {}.", wish_.out));
    if (!IO::isWritable(wish_.out))
        throw OffloadError::preflight(PreflightCode::destinationNotWritable,
                                      fmt::format("The folder for the proxies cannot be written: {}", wish_.out));
}

void ProxyBatch::plan(const IsCancelled& isCancelled) {
    claimFolder();
    std::set<std::string> used;
    std::vector<const ClipEntry*> toRender;
    for (Item& item : items_) {
        if (isCancelled && isCancelled())
            throw Cancelled();
        decide(item, used, isCancelled);
        if (item.outcome == ProxyOutcome::waiting)
            toRender.push_back(&item.entry);
    }
    if (const auto problem =
            ProxyPreflight::spaceBlocking(wish_.out, wish_.out, ProxyDecision::bytesOf(toRender, wish_.settings)))
        throw OffloadError::preflight(PreflightCode::noSpace, *problem);
}

void ProxyBatch::decide(Item& item, std::set<std::string>& used, const IsCancelled& isCancelled) {
    const Clip& clip = item.entry.clip;
    if (auto reason = ProxyDecision::whyNot(item.entry, wish_.settings, probe_)) {
        item.outcome = reason->outcome;
        item.note = std::move(reason->note);
        return;
    }
    bool own = false;
    const std::string wanted = ProxyPaths::of(clip, wish_.tree);
    item.file = ProxyPaths::pick(wanted, used, [&](const std::string& file) {
        own = IO::exists(wish_.out + "/" + file);
        return !own || (own = isOwn(file, item, isCancelled));
    });
    if (own) {
        item.entry.content = defectToldBy(wish_.out + "/" + item.file);
        item.outcome = ProxyOutcome::existing;
        item.note = "there already";
        if (item.entry.content)
            if (const std::string defect = ProxyDecision::defectText(*item.entry.content); !defect.empty())
                item.note += "; " + defect;
        return;
    }
    if (item.file != wanted)
        item.note = ProxyDecision::renamedText(item.file);
    // What a run that was killed has left of this proxy. Nobody else renders here.
    std::error_code ignored;
    std::filesystem::remove(wish_.out + "/" + ProxyPaths::part(item.file), ignored);
}

bool ProxyBatch::isOwn(const std::string& file, const Item& item, const IsCancelled& isCancelled) const {
    const auto& ffprobe = probe_.tools().ffprobe;
    return ffprobe &&
           ProxyOrigin::isOf(*ffprobe, wish_.out + "/" + file, item.entry.clip, *item.entry.info, isCancelled);
}

void ProxyBatch::render(const IsCancelled& isCancelled) {
    {
        MutexLock lock(mutex_);
        for (std::size_t i = items_.size(); i-- > 0;)
            if (items_[i].outcome == ProxyOutcome::waiting) {
                state_.waiting.push_back(i);
                state_.secondsToRender += lengths_[i];
            }
        state_.toRender = state_.waiting.size();
        state_.start = Clock::now();
    }
    std::vector<std::future<void>> workers;
    for (unsigned i = 0; i < std::max(1U, wish_.jobs); ++i)
        workers.push_back(std::async(std::launch::async, [&] { work(isCancelled); }));
    for (auto& worker : workers)
        worker.wait();
    for (auto& worker : workers)
        worker.get();
    if (isCancelled && isCancelled())
        throw Cancelled();
}

void ProxyBatch::work(const IsCancelled& isCancelled) {
    while (!isCancelled || !isCancelled()) {
        std::size_t index = 0;
        {
            MutexLock lock(mutex_);
            if (state_.waiting.empty())
                return;
            index = state_.waiting.back();
            state_.waiting.pop_back();
            state_.running[index] = 0;
        }
        renderOne(items_[index], isCancelled);
        MutexLock lock(mutex_);
        state_.running.erase(index);
        ++state_.ended;
        state_.failed += items_[index].outcome == ProxyOutcome::failed ? 1 : 0;
        state_.secondsEnded += lengths_[index];
        state_.secondsRendered += items_[index].outcome == ProxyOutcome::done ? lengths_[index] : 0;
    }
}

void ProxyBatch::renderOne(Item& item, const IsCancelled& isCancelled) {
    const auto index = static_cast<std::size_t>(&item - items_.data());
    const auto start = Clock::now();
    const LutUse none = LutUse::off("");
    const std::string& clip = item.entry.clip.name;
    const auto fail = [&](std::string why) {
        item.outcome = ProxyOutcome::failed;
        item.note = std::move(why);
        log_(fmt::format("proxy {}: {}", clip, item.note));
    };
    try {
        // The estimate of the whole may have been too low, or the disk fills from elsewhere.
        if (const auto problem = ProxyPreflight::spaceBlocking(wish_.out, wish_.out,
                                                               ProxyDecision::bytesOf({&item.entry}, wish_.settings)))
            return fail(*problem);
        const std::string source = ClipProbe::pathOf(item.entry.clip, wish_.source);
        RenderRequest request{item.entry.clip, source, *item.entry.info, item.entry.lut ? *item.entry.lut : none,
                              wish_.out + "/" + item.file};
        request.isCancelled = isCancelled;
        request.progress = [&](double fraction) {
            MutexLock lock(mutex_);
            state_.running[index] = fraction;
        };
        item.entry.content = renderChecked(renderer_, std::move(request), source, probe_.tools());
        item.outcome = ProxyOutcome::done;
        if (std::string defect = ProxyDecision::defectText(*item.entry.content); !defect.empty()) {
            item.note = std::move(defect);
            log_(fmt::format("proxy {}: {}", clip, item.note));
        }
    } catch (const ToolError& error) {
        if (error.message() == "cancelled")
            return; // it goes on waiting
        fail(error.what());
    } catch (const std::exception& error) {
        fail(error.what());
    }
    item.seconds = std::chrono::duration<double>(Clock::now() - start).count();
}

ProxyBatch::Progress ProxyBatch::progress() const {
    MutexLock lock(mutex_);
    Progress progress{state_.ended, state_.toRender, state_.failed, {}, 0, {}, {}};
    double rendered = state_.secondsRendered;
    double gone = state_.secondsEnded;
    for (const auto& [index, fraction] : state_.running) {
        progress.running.push_back({items_[index].entry.clip.name, fraction});
        rendered += fraction * lengths_[index];
        gone += fraction * lengths_[index];
    }
    if (state_.secondsToRender > 0)
        progress.fraction = std::min(1.0, gone / state_.secondsToRender);
    const double wall = std::chrono::duration<double>(Clock::now() - state_.start).count();
    if (rendered > 0 && wall > 1) { // the first second tells of the start of programs
        progress.speed = rendered / wall;
        progress.secondsLeft = std::max(0.0, state_.secondsToRender - gone) / *progress.speed;
    }
    return progress;
}

} // namespace velmora
