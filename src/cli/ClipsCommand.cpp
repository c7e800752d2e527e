#include "base/Flag.h"
#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/FoundClips.h"
#include "cli/Interrupts.h"
#include "cli/Table.h"
#include "cli/TerminalText.h"
#include "cli/TypedPath.h"
#include "cli/UserSettings.h"
#include "disks/Volumes.h"
#include "platform/IO.h"
#include "proxies/ClipAnalyzer.h"
#include "proxies/LutOption.h"
#include "proxies/ToolSearch.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace velmora {

namespace {

class ClipsCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("clips", "List the clips of a card with what they say of themselves");
        app->add_option("SOURCE", source_, "The card, or any folder of footage")->required();
        app->add_option("--thumbs", thumbs_, "Take up to three small pictures of each clip into this folder")
            ->type_name("DIR");
        app->add_option("--lut", lut_, "The LUT of the clips: auto, none, a path to a .cube, or a built-in one")
            ->type_name("LUT");
        app->add_flag("--json", json_, "Print JSON instead: one object a clip");
        app->footer("  velmora clips /media/me/A012\n"
                    "  velmora clips /media/me/A012 --thumbs ~/thumbs --lut none\n"
                    "\n"
                    "Exit status: 0 every clip was read; 1 a clip could not be, or its folder; 4 ffprobe is missing, "
                    "or the folder\n"
                    "could not be read; 130 cancelled.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        Console& console = context.console;
        const AppSettings settings = loadSettings(console);
        const LutCatalog catalog = LutCatalog::loadForUser();
        ClipAnalyzer::Wish wish;
        wish.settings = wishedLut(settings.proxy, catalog);
        wish.thumbnails = !thumbs_.empty();
        const std::string source = TypedPath::absolute(source_);
        wish.cardName = source.substr(source.rfind('/') + 1);
        prepareThumbs(source);

        Flag cancelled;
        const Interrupts::Route route(context.interrupts, {[&] { cancelled.set(); }, {}, {}});
        const IsCancelled isCancelled = [&] { return cancelled.isSet(); };
        const auto [clips, uncopied, mayLackClips] = FoundClips::of(source, console, isCancelled);
        const ClipProbe probe(ToolSearch::resolved(settings.tools));
        sayMissing(clips, probe, console);

        ClipAnalyzer(probe, catalog)
            .analyze(clips, source, wish, [&](AnalyzedClip&& clip) { take(clip, console); }, isCancelled);
        const ExitStatus status = cannotProbe_                  ? ExitStatus::brokeOff
                                  : unread_ > 0 || mayLackClips ? ExitStatus::dataProblem
                                                                : ExitStatus::ok;
        if (json_)
            console.event({{"event", "result"},
                           {"exitStatus", static_cast<int>(status)},
                           {"clips", clips.size()},
                           {"unread", unread_},
                           {"uncopied", uncopied}});
        else if (clips.empty())
            console.print("There is no clip in this folder.");
        else
            Table::print(std::move(rows_), console);
        return status;
    }

private:
    ProxySettings wishedLut(ProxySettings settings, const LutCatalog& catalog) const {
        if (lut_.empty())
            return settings;
        const LutOption::Parsed parsed = LutOption::parse(lut_, std::nullopt, catalog);
        if (parsed.error)
            throw UsageError(*parsed.error);
        parsed.applyTo(settings);
        if (parsed.mode == LutMode::custom) {
            settings.lutPath = TypedPath::absolute(*settings.lutPath);
            if (!LutCatalog::isValidCube(*settings.lutPath))
                throw UsageError(TerminalText::printable("Not a .cube file that can be used: " + *settings.lutPath));
        }
        return settings;
    }

    // Nothing is ever written to a card.
    void prepareThumbs(const std::string& source) {
        if (thumbs_.empty())
            return;
        thumbs_ = TypedPath::absolute(thumbs_);
        if (Volumes::isWithin(thumbs_, source))
            throw UsageError("The folder of the pictures lies on the card: choose another one.");
        IO::mkdirs(thumbs_);
    }

    void sayMissing(const std::vector<Clip>& clips, const ClipProbe& probe, Console& console) {
        const bool hasVideo =
            std::ranges::any_of(clips, [](const Clip& clip) { return clip.format == ClipFormat::video; });
        cannotProbe_ = hasVideo && !probe.tools().ffprobe;
        if (cannotProbe_)
            console.log(ToolSearch::missingText("ffprobe"));
        if (hasVideo && !thumbs_.empty() && !probe.tools().ffmpeg)
            console.log(ToolSearch::missingText("ffmpeg"));
    }

    void take(const AnalyzedClip& clip, Console& console) {
        ++number_;
        if (clip.entry.probeError)
            ++unread_;
        const std::vector<std::string> files = writeThumbs(clip.entry);
        if (json_)
            console.event(toJson(clip, files));
        else
            rows_.push_back(row(clip));
    }

    // Clips in different folders may have the same name: the number keeps their pictures apart.
    std::vector<std::string> writeThumbs(const ClipEntry& entry) const {
        constexpr std::size_t longestName = 200;
        std::vector<std::string> files;
        for (const Thumbnail& picture : entry.thumbnails) {
            files.push_back(fmt::format("{}/{:04}_{}_{}.jpg", thumbs_, number_, cutUtf8(entry.clip.name, longestName),
                                        files.size() + 1));
            IO::writeFileDurably(files.back(), picture.jpeg);
        }
        return files;
    }

    static nlohmann::json toJson(const AnalyzedClip& clip, const std::vector<std::string>& files) {
        nlohmann::json json = clip.entry;
        json.erase("proxyStatus"); // nothing is rendered here
        json["event"] = "clip";
        json["reel"] = clip.reel;
        if (clip.entry.info) {
            json["audioStreams"] = clip.entry.info->audioStreams;
            if (clip.entry.info->videoBitrate)
                json["videoBitrate"] = *clip.entry.info->videoBitrate;
        }
        if (!files.empty())
            json["thumbnails"] = nlohmann::json::array();
        for (std::size_t i = 0; i < files.size(); ++i)
            json["thumbnails"].push_back({{"file", files[i]}, {"timecode", clip.entry.thumbnails[i].label}});
        return json;
    }

    static std::vector<std::string> row(const AnalyzedClip& clip) {
        const ClipEntry& entry = clip.entry;
        constexpr std::size_t widestName = 40;
        const std::string name =
            TerminalText::fitMiddle(entry.clip.name, widestName) + (entry.clip.isCameraProxy ? " (camera proxy)" : "");
        if (entry.probeError)
            return {name, std::string(label(entry.clip.format)), "", "", "", "", clip.reel, "", "", *entry.probeError};
        const ClipInfo& info = *entry.info;
        return {name,
                info.codec.value_or("?"),
                info.resolutionLabel(),
                info.fpsSummary().value_or("?"),
                info.durationLabel().value_or("?"),
                info.timecode.value_or("-"),
                clip.reel,
                info.camera.value_or("-"),
                entry.lut->name,
                entry.lut->reason};
    }

    std::string source_;
    std::string thumbs_;
    std::string lut_;
    bool json_ = false;
    bool cannotProbe_ = false;
    std::size_t number_ = 0;
    std::size_t unread_ = 0;
    std::vector<std::vector<std::string>> rows_ = {
        {"CLIP", "CODEC", "SIZE", "RATE", "DURATION", "START", "REEL", "CAMERA", "LOOK", "WHY"}};
};

} // namespace

std::unique_ptr<Command> makeClipsCommand() { return std::make_unique<ClipsCommand>(); }

} // namespace velmora
