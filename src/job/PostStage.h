#pragma once

#include "base/Errors.h"
#include "base/PauseGate.h"
#include "job/JobStatus.h"
#include "proxies/ClipProbe.h"
#include "proxies/LutCatalog.h"
#include "proxies/ProxyPaths.h"
#include "records/ClipEntry.h"
#include "records/JobConfig.h"
#include "records/OffloadReport.h"
#include "records/SourceFile.h"
#include "records/SpaceNeed.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace velmora {

class ProxyRenderer;
class VerifySession;
struct OffloadPlan;

// What follows when a card lies on its disks: its clips are read from a copy, their proxies are made and laid beside
// every copy, and the report tells of both. Nothing of it can cost the backup: whatever goes wrong with a clip stays
// with that clip. It promises nothing.
//
// Works on the thread of the job.
class PostStage {
public:
    // What the job lends this stage. The references live as long as the object.
    struct World {
        const JobConfig& config;
        const OffloadPlan& plan;
        PauseGate::Worker& worker; // of the job's thread
        VerifySession* session;    // that the renders read through; null: none
        IsCancelled isCancelled;
        Log log;
        // Throws when the card folder is not the one that the run began with.
        std::function<void(const std::string& cardPath)> check;
        // Changes what front ends see. Any thread.
        std::function<void(const std::function<void(JobStatus&)>&)> tell;
        // Writes the report, as it stands now, to every disk.
        std::function<void(OffloadReport&)> lay;
        std::vector<ClipEntry> earlier;     // clips of the backup that earlier runs recorded
        std::vector<ClipEntry> interrupted; // clips as the run that is finished here has left them
    };

    static bool isWanted(const JobConfig& config) { return config.analyzeClips || config.proxy.enabled; }

    // What is wrong with the settings, before anything is copied: a sentence.
    static std::optional<std::string> problem(const JobConfig& config);
    // About how much space the proxies of a card will need.
    static SpaceExtra spaceFor(const JobConfig& config, const SourceScan& card);

    explicit PostStage(World world);
    ~PostStage();
    PostStage(const PostStage&) = delete;
    PostStage& operator=(const PostStage&) = delete;

    // Fills in `clips`, `proxy` and `proxyEncoder` of the report. Ends early when the job is cancelled; what is done by
    // then stands in the report.
    void run(OffloadReport& report);

    // "3 clips have a content defect — …"; none where every clip is sound.
    static std::optional<std::string> defectsText(std::int64_t clips);

private:
    struct Kept {
        std::string file; // of the proxy, below its folder
        bool own = false; // this clip's proxy has that name already
    };

    void analyze(OffloadReport& report);
    void readClips(OffloadReport& report, std::size_t first, std::size_t end, std::size_t dest);
    void makeProxies(OffloadReport& report);
    void makeProxy(ClipEntry& entry, const OffloadReport& report);
    void render(ClipEntry& entry, std::size_t dest, const std::string& path);
    Kept nameFor(const ClipEntry& entry, const std::string& cardPath);
    const ClipEntry* before(const ClipEntry& entry) const;
    void takeOver(ClipEntry& entry, const std::string& proxy) const;
    void copyToOthers(ClipEntry& entry, std::size_t dest, const std::string& file, bool wasThere);
    std::optional<std::string> whyNone(const OffloadReport& report) const;
    std::optional<std::size_t> goodDest(const Clip& clip, const OffloadReport& report) const;
    bool waitBetweenSteps();
    void layNowAndThen(OffloadReport& report);
    void count(const OffloadReport& report) const;

    const World world_;
    const std::vector<std::string> cardPaths_;
    const ClipProbe probe_;
    const LutCatalog luts_;
    const ProxyTree tree_;
    std::unique_ptr<ProxyRenderer> renderer_;
    std::set<std::string> names_;          // of proxies of this run
    std::optional<std::string> noProxies_; // why none is made
    std::chrono::steady_clock::time_point laid_;
};

} // namespace velmora
