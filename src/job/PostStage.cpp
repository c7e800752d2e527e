#include "job/PostStage.h"

#include "base/Text.h"
#include "clips/ClipDetector.h"
#include "clips/ContentCheck.h"
#include "disks/SpaceEstimator.h"
#include "disks/SpacePlanner.h"
#include "memory/CardRecord.h"
#include "platform/IO.h"
#include "proxies/CheckedRender.h"
#include "proxies/ClipAnalyzer.h"
#include "proxies/ProxyCopy.h"
#include "proxies/ProxyDecision.h"
#include "proxies/ProxyOrigin.h"
#include "proxies/ProxyPreflight.h"
#include "proxies/ProxyRenderer.h"
#include "proxies/ToolSearch.h"
#include "records/OffloadPlan.h"
#include "verify/VerifySession.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace velmora {

namespace {

using Clock = std::chrono::steady_clock;
using Phase = JobStatus::Phase;

// Clips that are read between two looks at the pause button.
constexpr std::size_t clipsAtOnce = 16;
// Reading a clip takes a moment only: a report is not written for each.
constexpr auto layPeriod = std::chrono::seconds(5);
constexpr int extraNames = 99;

constexpr std::string_view keptText =
    "proxy from the interrupted run — not rendered again (the decoder did not check the clip's content this time)";
constexpr std::string_view thereText = "there already — not rendered again";

ProxyStatus statusOf(ProxyOutcome outcome) {
    switch (outcome) {
    case ProxyOutcome::lighter:
    case ProxyOutcome::skipped:
        return ProxyStatus::skipped;
    case ProxyOutcome::unsupported:
        return ProxyStatus::unsupported;
    default:
        return ProxyStatus::failed;
    }
}

void addNote(ClipEntry& entry, std::string_view note) {
    std::string& all = entry.proxyNote ? *entry.proxyNote : entry.proxyNote.emplace();
    all += (all.empty() ? "" : "; ") + std::string(note);
}

} // namespace

PostStage::PostStage(World world)
    : world_(std::move(world)), cardPaths_(world_.plan.cardPaths()), probe_(ToolSearch::resolved(world_.config.tools)),
      luts_(LutCatalog::loadForUser()), tree_(ProxyPaths::detect(world_.earlier)) {}

PostStage::~PostStage() = default;

std::optional<std::string> PostStage::defectsText(std::int64_t clips) {
    if (clips == 0)
        return std::nullopt;
    return clips == 1 ? "1 clip has a content defect — check it before formatting (the copy matches the card)."
                      : fmt::format("{} clips have a content defect — check them before formatting (the copy matches "
                                    "the card).",
                                    clips);
}

std::optional<std::string> PostStage::problem(const JobConfig& config) {
    const auto lut = ProxyPreflight::lutInUse(config.proxy, config.analyzeClips || config.proxy.enabled);
    if (auto text = ProxyPreflight::blocking(config.proxy, true, lut && LutCatalog::isValidCube(*lut)))
        return text;
    return ProxyPreflight::extraFolderBlocking(config.proxy);
}

SpaceExtra PostStage::spaceFor(const JobConfig& config, const SourceScan& card) {
    SpaceExtra extra;
    if (!config.proxy.enabled)
        return extra;
    const ClipProbe probe(ToolSearch::resolved(config.tools));
    const auto renderable = [&](const Clip& clip) { return !probe.unsupportedReason(clip.format); };
    extra.proxy = SpaceEstimator::proxyBytes(ClipDetector::detect(card.files), config.proxy, renderable, {}, {});
    extra.proxyOnAllDestinations = config.proxy.copyToAllDestinations;
    extra.proxyFolder = config.proxy.extraFolder;
    return extra;
}

void PostStage::run(OffloadReport& report) {
    report.clips.clear();
    for (Clip& clip : ClipDetector::detect(world_.plan.scan.files)) {
        ClipEntry& entry = report.clips.emplace_back();
        entry.clip = std::move(clip);
        if (const ClipEntry* known = before(entry); known != nullptr && known->info)
            entry = *known; // the interrupted run has read it, and perhaps rendered it
    }
    if (world_.config.proxy.enabled)
        report.proxy = world_.config.proxy;
    if (report.clips.empty())
        return;
    world_.tell([&](JobStatus& status) {
        status.phase = Phase::analyzing;
        status.clipCount = static_cast<std::int64_t>(report.clips.size());
    });
    laid_ = Clock::now();
    try {
        analyze(report);
        if (world_.config.proxy.enabled)
            makeProxies(report);
    } catch (const Cancelled&) {
        world_.log("the rest of the clips was not looked at: cancelled");
    }
    count(report);
    world_.lay(report);
}

bool PostStage::waitBetweenSteps() { return world_.worker.waitWhilePaused(world_.isCancelled); }

void PostStage::layNowAndThen(OffloadReport& report) {
    if (Clock::now() - laid_ < layPeriod)
        return;
    world_.lay(report);
    laid_ = Clock::now();
}

// The disk whose copies the renders prove; else the first on which every file of the clip was read back, or else
// written.
std::optional<std::size_t> PostStage::goodDest(const Clip& clip, const OffloadReport& report) const {
    std::map<std::string_view, const OffloadReport::FileEntry*> files;
    for (const std::string& segment : clip.segments)
        files.emplace(segment, nullptr);
    for (const auto& file : report.files)
        if (const auto wanted = files.find(file.path); wanted != files.end())
            wanted->second = &file;
    const auto isGood = [&](std::size_t d, bool proved) {
        return std::ranges::all_of(files, [&](const auto& named) {
            const auto* file = named.second;
            return file != nullptr && !file->sourceError &&
                   (file->destinations[d] == "verified" || (!proved && file->destinations[d] == "written"));
        });
    };
    const auto primary = world_.session ? world_.session->primary() : std::nullopt;
    if (primary && isGood(*primary, false))
        return primary;
    for (const bool proved : {true, false})
        for (std::size_t d = 0; d < cardPaths_.size(); ++d)
            if (isGood(d, proved))
                return d;
    return std::nullopt;
}

void PostStage::analyze(OffloadReport& report) {
    std::vector<std::optional<std::size_t>> dests;
    for (const ClipEntry& entry : report.clips)
        dests.push_back(entry.info ? std::nullopt : goodDest(entry.clip, report));
    for (std::size_t first = 0; first < dests.size();) {
        std::size_t end = first + 1;
        while (end < dests.size() && end - first < clipsAtOnce && dests[end] == dests[first])
            ++end;
        if (!waitBetweenSteps())
            throw Cancelled();
        if (dests[first])
            readClips(report, first, end, *dests[first]);
        layNowAndThen(report);
        first = end;
    }
}

void PostStage::readClips(OffloadReport& report, std::size_t first, std::size_t end, std::size_t dest) {
    std::vector<Clip> clips;
    for (std::size_t i = first; i < end; ++i)
        clips.push_back(report.clips[i].clip);
    ClipAnalyzer::Wish wish;
    wish.settings = world_.config.proxy;
    wish.cardName = report.cardName;
    std::size_t next = first;
    const auto take = [&](AnalyzedClip&& clip) {
        if (clip.entry.info && !clip.reel.empty())
            clip.entry.info->reel = clip.reel;
        if (clip.entry.probeError)
            world_.log(fmt::format("probe {}: {}", clip.entry.clip.name, *clip.entry.probeError));
        report.clips[next++] = std::move(clip.entry);
        world_.tell([&](JobStatus& status) {
            status.clipIndex = static_cast<std::int64_t>(next);
            status.clipName = report.clips[next - 1].clip.name;
        });
    };
    try {
        ClipAnalyzer(probe_, luts_).analyze(clips, cardPaths_[dest], wish, take, world_.isCancelled);
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        for (; next < end; ++next)
            report.clips[next].probeError = error.what();
    }
}

// Why no proxy at all can be made.
std::optional<std::string> PostStage::whyNone(const OffloadReport& report) const {
    if (!probe_.tools().ffmpeg)
        return ToolSearch::missingText("ffmpeg");
    std::vector<const ClipEntry*> wanted;
    for (const ClipEntry& entry : report.clips)
        if (!ProxyDecision::whyNot(entry, world_.config.proxy, probe_))
            wanted.push_back(&entry);
    const ProxySettings& settings = world_.config.proxy;
    SpaceExtra extra;
    extra.proxy = ProxyDecision::bytesOf(wanted, settings);
    extra.proxyOnAllDestinations = settings.copyToAllDestinations;
    extra.proxyFolder = settings.extraFolder;
    const auto targets = SpacePlanner::targets(cardPaths_);
    for (const SpaceProblem& problem : SpacePlanner::checkPlaces(SpacePlanner::places(extra, 0, targets)).problems)
        if (problem.severity == SpaceSeverity::blocking)
            return fmt::format("Proxies were not rendered: not enough space on {}", problem.label);
    return std::nullopt;
}

void PostStage::makeProxies(OffloadReport& report) {
    noProxies_ = whyNone(report);
    if (noProxies_) {
        world_.log("proxies skipped: " + *noProxies_);
        world_.tell([&](JobStatus& status) { status.addWarning(*noProxies_); });
    } else
        renderer_ = std::make_unique<ProxyRenderer>(world_.config.proxy, probe_, world_.log);
    for (std::size_t i = 0; i < report.clips.size(); ++i) {
        if (!waitBetweenSteps())
            throw Cancelled();
        ClipEntry& entry = report.clips[i];
        world_.tell([&](JobStatus& status) {
            status.phase = Phase::proxies;
            status.clipIndex = static_cast<std::int64_t>(i + 1);
            status.clipName = entry.clip.name;
            status.clipFraction = 0;
        });
        makeProxy(entry, report);
        if (entry.proxyStatus == ProxyStatus::failed)
            world_.log(fmt::format("proxy {}: {}", entry.clip.name, entry.proxyNote.value_or("")));
        if (renderer_ && !report.proxyEncoder && entry.proxySeconds)
            report.proxyEncoder = renderer_->encoderName(world_.isCancelled);
        count(report);
        if (entry.proxySeconds)
            world_.lay(report), laid_ = Clock::now();
        else
            layNowAndThen(report);
    }
}

void PostStage::makeProxy(ClipEntry& entry, const OffloadReport& report) {
    const auto end = [&](ProxyStatus status, std::string_view note) {
        entry.proxyStatus = status;
        addNote(entry, note);
    };
    entry.proxyStatus = ProxyStatus::none;
    entry.proxyPath.reset();
    entry.proxyNote.reset();
    entry.proxySeconds.reset();
    const auto dest = goodDest(entry.clip, report);
    if (!dest)
        return end(ProxyStatus::failed, "no verified copy");
    if (const auto reason = ProxyDecision::whyNot(entry, world_.config.proxy, probe_)) {
        const bool proved = reason->outcome == ProxyOutcome::unsupported && report.verified;
        return end(statusOf(reason->outcome), reason->note + (proved ? " — copied and verified, no proxy" : ""));
    }
    if (noProxies_)
        return end(renderer_ || probe_.tools().ffmpeg ? ProxyStatus::skipped : ProxyStatus::failed, *noProxies_);
    const std::string& cardPath = cardPaths_[*dest];
    try {
        world_.check(cardPath);
        const auto [file, own] = nameFor(entry, cardPath);
        const std::string path = ProxyPaths::folder(cardPath) + "/" + file;
        if (own)
            takeOver(entry, path);
        else {
            if (file != ProxyPaths::of(entry.clip, tree_))
                addNote(entry, ProxyDecision::renamedText(file));
            render(entry, *dest, path);
        }
        entry.proxyStatus = ProxyStatus::done;
        entry.proxyPath = ProxyPaths::relative(file);
        copyToOthers(entry, *dest, file, own);
    } catch (const ToolError& error) {
        if (world_.isCancelled())
            throw Cancelled();
        end(ProxyStatus::failed, error.what());
    } catch (const Cancelled&) {
        throw;
    } catch (const std::exception& error) {
        end(ProxyStatus::failed, error.what());
    }
}

// The name must be free wherever the proxy goes, unless it is this clip's proxy that has it.
PostStage::Kept PostStage::nameFor(const ClipEntry& entry, const std::string& cardPath) {
    Kept kept;
    const auto isOwn = [&](const std::string& path) {
        return probe_.tools().ffprobe &&
               ProxyOrigin::isOf(*probe_.tools().ffprobe, path, entry.clip, *entry.info, world_.isCancelled);
    };
    const auto isFree = [&](const std::string& file) {
        kept.own = false;
        for (const std::string& folder : cardPaths_) {
            const bool isHere = folder == cardPath;
            if (!isHere && !world_.config.proxy.copyToAllDestinations)
                continue;
            const std::string path = ProxyPaths::folder(folder) + "/" + file;
            if (!IO::exists(path))
                continue;
            if (!isOwn(path))
                return false;
            kept.own = kept.own || isHere;
        }
        return true;
    };
    kept.file = ProxyPaths::pick(ProxyPaths::of(entry.clip, tree_), names_, isFree);
    return kept;
}

// Takes over what the run that made the proxy has found about the clip.
void PostStage::takeOver(ClipEntry& entry, const std::string& proxy) const {
    for (const ClipEntry& known : world_.earlier)
        if (known.clip.path == entry.clip.path && known.clip.bytes == entry.clip.bytes && !entry.content)
            entry.content = known.content;
    if (!entry.content)
        entry.content = defectToldBy(proxy); // no report tells of it
    addNote(entry, world_.plan.resuming ? keptText : thereText);
}

const ClipEntry* PostStage::before(const ClipEntry& entry) const {
    const auto found = std::ranges::find_if(world_.interrupted, [&](const ClipEntry& known) {
        return known.clip.path == entry.clip.path && known.clip.bytes == entry.clip.bytes;
    });
    return found == world_.interrupted.end() ? nullptr : &*found;
}

void PostStage::render(ClipEntry& entry, std::size_t dest, const std::string& path) {
    const auto start = Clock::now();
    const LutUse none = LutUse::off("");
    const std::string source = ClipProbe::pathOf(entry.clip, cardPaths_[dest]);
    const auto lease = world_.session ? world_.session->prepare(entry.clip, dest) : nullptr;
    RenderRequest request{entry.clip, lease && lease->url() ? *lease->url() : source, *entry.info,
                          entry.lut ? *entry.lut : none, path};
    if (lease && lease->url())
        request.activity = [&lease] { return lease->activity(); };
    request.isCancelled = world_.isCancelled;
    request.progress = [&](double fraction) {
        world_.tell([&](JobStatus& status) { status.clipFraction = fraction; });
    };
    entry.content = renderChecked(*renderer_, std::move(request), source, probe_.tools());
    entry.proxySeconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (entry.content->state == ContentCheck::defect)
        world_.log(fmt::format("content {}: {} at {}", entry.clip.name, entry.content->kindText(),
                               entry.content->timecode.value_or("?")));
}

void PostStage::copyToOthers(ClipEntry& entry, std::size_t dest, const std::string& file, bool wasThere) {
    const ProxySettings& settings = world_.config.proxy;
    const std::string from = ProxyPaths::folder(cardPaths_[dest]) + "/" + file;
    const auto failed = [&](const std::string& destination, const std::string& error) {
        const std::string text = fmt::format("copy to {} failed: {}", destination, error);
        world_.log(fmt::format("proxy {}: {}", entry.clip.name, text));
        addNote(entry, text);
    };
    for (std::size_t d = 0; settings.copyToAllDestinations && d < cardPaths_.size(); ++d) {
        const std::string to = ProxyPaths::folder(cardPaths_[d]) + "/" + file;
        if (d == dest)
            continue;
        try {
            world_.check(cardPaths_[d]);
            if (!IO::exists(to)) // `nameFor` has checked that an existing one is this clip's
                ProxyCopy::copyFile(from, to, false, world_.isCancelled);
        } catch (const Cancelled&) {
            throw;
        } catch (const std::exception& error) {
            failed(cardPaths_[d], error.what());
        }
    }
    if (!settings.extraFolder || settings.extraFolder->empty())
        return;
    const std::string there =
        fmt::format("{}/{}/{}/{}", *settings.extraFolder, world_.plan.date, world_.plan.cardName, file);
    if (wasThere && IO::exists(there))
        return;
    const auto placed = ProxyCopy::toExtraFolder(*settings.extraFolder, from, world_.plan.date, world_.plan.cardName,
                                                 file, extraNames, world_.isCancelled);
    if (placed.error)
        failed(*settings.extraFolder, *placed.error);
}

void PostStage::count(const OffloadReport& report) const {
    const auto with = [&](ProxyStatus status) {
        return std::ranges::count(report.clips, status, &ClipEntry::proxyStatus);
    };
    world_.tell([&](JobStatus& status) {
        status.proxiesDone = with(ProxyStatus::done);
        status.proxiesFailed = with(ProxyStatus::failed);
        status.contentWarnings = static_cast<std::int64_t>(report.contentWarnings().size());
    });
}

} // namespace velmora
