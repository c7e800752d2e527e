#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "platform/FileLock.h"
#include "proxies/ProxyDecision.h"
#include "proxies/ProxyPaths.h"
#include "records/ClipEntry.h"
#include "records/ProxySettings.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class ClipProbe;
class ProxyRenderer;

// Renders the proxies of one folder of clips into another, without a job. A second run makes only what is missing.
class ProxyBatch {
public:
    struct Wish {
        std::string source; // the folder in which the clips lie
        std::string out;
        ProxySettings settings;
        ProxyTree tree = ProxyTree::mirror;
        unsigned jobs = 1; // clips at a time
    };
    struct Item {
        ClipEntry entry;       // as it was analysed
        std::string file = {}; // of the proxy, below `out`
        ProxyOutcome outcome = ProxyOutcome::waiting;
        std::string note = {}; // why, where there is a reason
        double seconds = 0;    // the render took
    };

    // The references live as long as the object. Takes the clips in the order in which names are given.
    ProxyBatch(const ClipProbe& probe, ProxyRenderer& renderer, Wish wish, Log log, std::vector<ClipEntry> clips);

    // Decides what is to be rendered, and under which name. Throws OffloadError when it cannot begin: the folder cannot
    // be written, another run renders into it, its disk lacks the room.
    void plan(const IsCancelled& isCancelled);
    // Renders the items that wait. A clip that fails does not affect the others. Throws Cancelled.
    void render(const IsCancelled& isCancelled);

    const std::vector<Item>& items() const { return items_; } // not while render() runs

    struct Running {
        std::string clip;
        double fraction = 0;
    };
    struct Progress {
        std::size_t ended = 0; // of those that were to be rendered
        std::size_t toRender = 0;
        std::size_t failed = 0;
        std::vector<Running> running;
        double fraction = 0;         // of all, by their length
        std::optional<double> speed; // seconds of clip a second
        std::optional<double> secondsLeft;
    };
    Progress progress() const; // any thread

private:
    void decide(Item& item, std::set<std::string>& used, const IsCancelled& isCancelled);
    void renderOne(Item& item, const IsCancelled& isCancelled);
    void work(const IsCancelled& isCancelled);
    bool isOwn(const std::string& file, const Item& item, const IsCancelled& isCancelled) const;
    void claimFolder();

    const ClipProbe& probe_;
    ProxyRenderer& renderer_;
    Wish wish_;
    Log log_;
    std::vector<Item> items_; // during render(), an item belongs to the thread that renders it
    std::optional<FileLock> lock_;
    std::vector<double> lengths_; // seconds of each clip

    struct State {
        std::map<std::size_t, double> running; // fraction by index
        std::vector<std::size_t> waiting;      // indexes, the next one last
        std::size_t toRender = 0;
        std::size_t ended = 0;
        std::size_t failed = 0;
        double secondsToRender = 0; // of clips
        double secondsEnded = 0;
        double secondsRendered = 0; // of those that ended well, for the speed
        std::chrono::steady_clock::time_point start;
    };
    mutable Mutex mutex_;
    State state_ GUARDED_BY(mutex_);
};

} // namespace velmora
