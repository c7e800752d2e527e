#include "base/Flag.h"
#include "base/RelativePath.h"
#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/FoundClips.h"
#include "cli/Interrupts.h"
#include "cli/ProxyChoice.h"
#include "cli/ProxyWords.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"
#include "engine/Layout.h"
#include "platform/IO.h"
#include "proxies/ClipAnalyzer.h"
#include "proxies/ProxyBatch.h"
#include "proxies/ProxyPreflight.h"
#include "proxies/ProxyRenderer.h"
#include "proxies/ToolSearch.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <future>

namespace velmora {

namespace {

constexpr auto tick = std::chrono::milliseconds(250);

class ProxiesCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("proxies", "Render proxies of the clips in a folder");
        app->add_option("SOURCE", source_, "A card, a card folder of a backup, or any folder of footage")->required();
        app->add_option("--out", out_, "The folder for the proxies")->required()->type_name("DIR");
        const auto setting = [&](const char* option, const char* key, const char* help) {
            app->add_option_function<std::string>(
                option, [this, key](const std::string& text) { choice_.values.emplace_back(key, text); }, help);
        };
        setting("--codec", "codec", "h264, hevc, proresProxy, proresLT, prores422 or prores422HQ");
        setting("--height", "height", "Lines of the proxy");
        setting("--bitrate", "bitrateMbps", "Mbit/s, for h264 and hevc");
        app->add_option("--lut", choice_.lut, "auto, none, the id of a built-in LUT, or a path to a .cube");
        app->add_option("--lut-fallback", choice_.lutFallback, "The same, for clips whose camera is not recognised");
        app->add_flag("--no-burn-in", noBurnIn_, "Draw neither name nor timecode into the picture");
        setting("--frame-aspect", "frameAspect", "Crop to the frame lines: width over height");
        setting("--frame-scale", "frameScale", "Part of the picture inside the frame lines");
        app->add_flag("--flat", flat_, "All proxies in one folder, not in folders like those of their clips");
        app->add_option("--jobs", jobs_, "Clips at a time, 1 to 16")->check(CLI::Range(1, 16))->capture_default_str();
        app->add_flag("--json", json_, "Print JSON instead: one object a line");
        app->footer(
            "Example:\n"
            "  velmora proxies /media/dit/A001 --out /mnt/edit/A001_PROXY --height 720\n"
            "\n"
            "What no option says is taken from the settings (velmora settings). A proxy that is there already\n"
            "is not rendered again, so a second run makes only what is missing.\n"
            "\n"
            "Exit status: 0 every clip that wants a proxy has one; 1 a proxy could not be made, a clip is damaged,\n"
            "or a name or folder could not be read; 2 wrong usage; 3 refused before anything was rendered; 4 the run "
            "broke off; 130 cancelled.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        Console& console = context.console;
        const LutCatalog catalog = LutCatalog::loadForUser();
        AppSettings settings = loadSettings(console);
        const ProxySettings proxy = wanted(settings, catalog);
        ProxyBatch::Wish wish{RelativePath::withoutTrailingSlash(TypedPath::absolute(source_)),
                              RelativePath::withoutTrailingSlash(TypedPath::absolute(out_)), proxy,
                              flat_ ? ProxyTree::flat : ProxyTree::mirror, jobs_};
        keepOffTheSource(wish);

        Flag cancelled;
        const IsCancelled isCancelled = [&] { return cancelled.isSet(); };
        const Interrupts::Route route(context.interrupts, {[&] { cancelled.set(); }, {}, {}});
        const Log log = [&](std::string_view line) { console.log(TerminalText::printable(line)); };

        const ClipProbe probe(findTools(settings.tools, log));
        const FoundClips found = FoundClips::of(wish.source, console, isCancelled);
        ProxyRenderer renderer(proxy, probe, log);
        ProxyBatch batch(probe, renderer, wish, log, analyze(found.clips, probe, catalog, wish, isCancelled));
        batch.plan(isCancelled);
        try {
            render(batch, console, isCancelled);
        } catch (const Cancelled&) {
            // What is done is told below.
        }
        console.clearProgress();
        return tell(batch, wish, found, cancelled.isSet(), console);
    }

private:
    ProxySettings wanted(AppSettings& settings, const LutCatalog& catalog) const {
        choice_.applyTo(settings, catalog);
        ProxySettings& proxy = settings.proxy;
        proxy.enabled = true;
        if (noBurnIn_)
            proxy.burnFilename = proxy.burnTimecode = false;
        const auto path = ProxyPreflight::lutInUse(proxy, true);
        if (const auto problem = ProxyPreflight::blocking(proxy, true, path && IO::exists(*path)))
            throw UsageError(*problem);
        if (path && !LutCatalog::isValidCube(*path))
            throw UsageError("Not a .cube file that can be used: " + *path);
        return proxy;
    }

    // A card is only read. The folder of proxies in a backup is no part of its footage.
    static void keepOffTheSource(const ProxyBatch::Wish& wish) {
        if (!IO::isFolder(wish.source))
            throw OffloadError::preflight(PreflightCode::sourceNotFound,
                                          fmt::format("There is no folder {}", wish.source));
        const std::string source = Layout::normalizedRoot(wish.source) + "/";
        const std::string out = Layout::normalizedRoot(wish.out) + "/";
        const std::string own = source + toLower(Layout::proxyDirName) + "/";
        if (out.starts_with(source) && !out.starts_with(own))
            throw OffloadError::preflight(
                PreflightCode::sourceIsOffload,
                fmt::format("The proxies would lie among the clips — choose another folder than {}.", wish.out));
    }

    static ExternalTools findTools(const ExternalTools& configured, const Log& log) {
        const ExternalTools tools = ToolSearch::resolved(configured);
        for (const auto& [name, path] : {std::pair{"ffmpeg", tools.ffmpeg}, std::pair{"ffprobe", tools.ffprobe}}) {
            if (!path)
                throw OffloadError::preflight(PreflightCode::other, ToolSearch::missingText(name));
            log(fmt::format("Using {}", ToolSearch::version(*path).value_or(*path)));
        }
        return tools;
    }

    static std::vector<ClipEntry> analyze(const std::vector<Clip>& clips, const ClipProbe& probe,
                                          const LutCatalog& catalog, const ProxyBatch::Wish& wish,
                                          const IsCancelled& isCancelled) {
        std::vector<ClipEntry> entries;
        ClipAnalyzer::Wish what;
        what.settings = wish.settings;
        ClipAnalyzer(probe, catalog)
            .analyze(
                clips, wish.source, what,
                [&](AnalyzedClip&& clip) {
                    if (clip.entry.info && !clip.reel.empty())
                        clip.entry.info->reel = clip.reel;
                    entries.push_back(std::move(clip.entry));
                },
                isCancelled);
        return entries;
    }

    void render(ProxyBatch& batch, Console& console, const IsCancelled& isCancelled) const {
        auto work = std::async(std::launch::async, [&] { batch.render(isCancelled); });
        while (work.wait_for(tick) != std::future_status::ready) {
            const auto progress = batch.progress();
            if (json_)
                console.event(ProxyWords::status(progress));
            if (console.showsProgress())
                console.progress(TerminalText::fitMiddle(isCancelled() ? "Cancelling — stopping the clip in progress…"
                                                                       : ProxyWords::line(progress),
                                                         console.columns()));
        }
        work.get();
    }

    ExitStatus tell(const ProxyBatch& batch, const ProxyBatch::Wish& wish, const FoundClips& found, bool cancelled,
                    Console& console) const {
        const bool complete =
            !found.mayLackClips && std::ranges::none_of(batch.items(), [](const ProxyBatch::Item& item) {
                return item.outcome == ProxyOutcome::failed || item.outcome == ProxyOutcome::unsupported ||
                       (item.entry.content && item.entry.content->kind);
            });
        const ExitStatus status = cancelled  ? ExitStatus::cancelled
                                  : complete ? ExitStatus::ok
                                             : ExitStatus::dataProblem;
        if (json_) {
            auto result = ProxyWords::result(batch.items(), wish.out, static_cast<int>(status));
            result["uncopied"] = found.uncopied;
            console.event(result);
        } else
            for (const std::string& line : ProxyWords::summary(batch.items(), wish.out, cancelled))
                console.print(TerminalText::printable(line));
        return status;
    }

    std::string source_;
    std::string out_;
    ProxyChoice choice_;
    bool noBurnIn_ = false;
    bool flat_ = false;
    unsigned jobs_ = 1;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeProxiesCommand() { return std::make_unique<ProxiesCommand>(); }

} // namespace velmora
