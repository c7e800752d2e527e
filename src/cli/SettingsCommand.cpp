#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/TerminalText.h"
#include "cli/ToolsInUse.h"
#include "cli/UserSettings.h"
#include "proxies/LutCatalog.h"
#include "proxies/LutOption.h"
#include "proxies/ToolSearch.h"
#include "settings/AppSupport.h"
#include "settings/SettingsKeys.h"
#include "settings/SettingsStore.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace velmora {

namespace {

class SettingsCommand : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("settings", "Show the settings, or set one");
        app->add_option("KEY", key_, "A setting, as the list shows it; without it all are listed");
        app->add_option("VALUE", values_,
                        "The new value; several for a list, key=name for portNames. One empty value (\"\") makes an "
                        "optional setting empty");
        app->add_flag("--reset", reset_, "Set the default again");
        app->add_flag("--json", json_, "Print JSON instead: one object for each setting");
        app->footer("Examples:\n"
                    "  velmora settings\n"
                    "  velmora settings proxy.height 720\n"
                    "  velmora settings destRoots /mnt/raid /mnt/shuttle\n"
                    "  velmora settings proxy.height --reset\n"
                    "  velmora settings tools.ffmpeg\n"
                    "\n"
                    "A settings.json that cannot be understood is said by every command that reads it and stays as it\n"
                    "is; a change sets a file that is no JSON object aside, and keeps single values as they are.\n"
                    "Copies have XXH64 digests; the setting hash adds no MD5 to them.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        if (reset_ && (key_.empty() || !values_.empty()))
            throw UsageError("--reset takes the name of one setting and no value.");
        try {
            if (reset_ || !values_.empty())
                change(context.console);
            else
                show(context.console);
        } catch (const SettingsError& error) {
            throw UsageError(error.what());
        }
        return ExitStatus::ok;
    }

private:
    void change(Console& console) {
        const LutIds luts = knownLuts();
        const auto change = [&](AppSettings& settings) {
            if (reset_)
                return SettingsKeys::reset(settings, key_);
            SettingsKeys::set(settings, key_, values_, luts);
            checkFile();
        };
        const AppSettings settings = SettingsStore::update(AppSupport::folder(), change, luts,
                                                           [&](std::string_view line) { console.log(line); });
        print(console, SettingsKeys::show(settings, key_, luts), key_.size(), ToolsInUse(settings.tools));
    }

    // A path that is good for nothing now is a mistake of the one who types it. What a disk holds that may be away is
    // looked at when it is needed.
    void checkFile() const {
        const std::string& path = values_[0];
        if (path.empty())
            return;
        if (key_ == "proxy.lutPath" && !(LutOption::isCubePath(path) && LutCatalog::isValidCube(path)))
            throw SettingsError(
                fmt::format("{}: {} is no 3D LUT in the .cube form, or is not there.", key_, escapeForDisplay(path)));
        if (key_.starts_with("tools.") && !ToolSearch::isExecutable(path))
            throw SettingsError(fmt::format("{}: {} is no program that can be run.", key_, escapeForDisplay(path)));
    }

    void show(Console& console) {
        const AppSettings settings = loadSettings(console);
        const LutIds luts = knownLuts();
        const ToolsInUse tools(settings.tools);
        if (!key_.empty()) {
            const SettingLine line = SettingsKeys::show(settings, key_, luts);
            print(console, line, key_.size(), tools);
            if (!json_)
                console.print("May be: " + line.allowed);
            return;
        }
        const auto lines = SettingsKeys::list(settings, luts);
        std::size_t width = 0;
        for (const SettingLine& line : lines)
            width = std::max(width, line.key.size());
        for (const SettingLine& line : lines)
            print(console, line, width, tools);
    }

    void print(Console& console, const SettingLine& line, std::size_t width, const ToolsInUse& tools) const {
        if (json_) {
            nlohmann::json event = {{"event", "setting"},           {"key", line.key},   {"values", line.values},
                                    {"allowed", line.allowed},      {"note", line.note}, {"default", line.isDefault},
                                    {"unreadable", line.unreadable}};
            if (const auto path = tools.path(line.key)) {
                event["used"] = *path;
                event["version"] = *tools.describe(line.key);
            }
            console.event(event);
            return;
        }
        std::string text = fmt::format("{:<{}}  {}", line.key, width,
                                       line.values.empty() ? "-" : escapeForDisplay(join(line.values, ", ")));
        if (line.unreadable)
            text += "  (the file holds something that this version does not understand; it is kept)";
        if (const std::string remark = tools.remark(line.key); !remark.empty())
            text += "  " + TerminalText::printable(remark);
        console.print(text);
        if (!key_.empty() && !line.note.empty())
            console.print(line.note);
    }

    std::string key_;
    std::vector<std::string> values_;
    bool reset_ = false;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeSettingsCommand() { return std::make_unique<SettingsCommand>(); }

} // namespace velmora
