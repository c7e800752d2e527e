#include "base/Text.h"
#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/TerminalText.h"
#include "memory/HistoryText.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>

namespace velmora {

namespace {

Console::Tone toneOf(HistoryTone tone) {
    switch (tone) {
    case HistoryTone::ok:
        return Console::Tone::good;
    case HistoryTone::warning:
        return Console::Tone::warning;
    case HistoryTone::error:
        return Console::Tone::bad;
    default:
        return Console::Tone::plain;
    }
}

class HistoryCommand final : public Command {
public:
    CLI::App* declare(CLI::App& program) override {
        CLI::App* app = program.add_subcommand("history", "List the cards that were backed up");
        app->add_option("--date", date_, "Only this shooting day, YYYY-MM-DD");
        app->add_option("--forget", forget_, "Remove the entry with this id; the backup itself is not touched")
            ->type_name("ID");
        app->add_flag("--json", json_, "Print JSON instead: one object an entry");
        app->footer("The history only says where to look: the truth about a backup is its folder on the disk.");
        return app;
    }

    ExitStatus run(CommandContext& context) override {
        Console& console = context.console;
        HistorySession history(console);
        if (!forget_.empty())
            return forget(history, console);
        std::vector<HistoryEntry> entries = history.load();
        std::erase_if(entries, [&](const HistoryEntry& entry) { return !date_.empty() && entry.date != date_; });
        if (json_) {
            for (const HistoryEntry& entry : entries)
                console.event({{"event", "entry"}, {"entry", entry}});
            return ExitStatus::ok;
        }
        std::stable_sort(entries.begin(), entries.end(),
                         [](const HistoryEntry& a, const HistoryEntry& b) { return a.date > b.date; });
        std::string day;
        for (const HistoryEntry& entry : entries) {
            if (entry.date != day || &entry == &entries.front())
                console.print(console.toned(TerminalText::printable(entry.date), Console::Tone::bold));
            day = entry.date;
            show(entry, console);
        }
        if (entries.empty())
            console.print("No card has been backed up yet.");
        return ExitStatus::ok;
    }

private:
    ExitStatus forget(HistorySession& history, Console& console) const {
        switch (history.store().remove(forget_)) {
        case HistoryWrite::written:
            console.print("Removed " + TerminalText::printable(forget_) + ".");
            return ExitStatus::ok;
        case HistoryWrite::busy:
            console.log("velmora: the card history is busy — try again in a moment");
            return ExitStatus::brokeOff;
        case HistoryWrite::unchanged:
            console.log("velmora: the history has no entry " + TerminalText::printable(forget_));
            return ExitStatus::brokeOff;
        case HistoryWrite::failed:
            break;
        }
        console.log("velmora: the history could not be written");
        return ExitStatus::brokeOff;
    }

    static void show(const HistoryEntry& entry, Console& console) {
        const HistoryText::Line state = HistoryText::state(entry);
        std::string text = fmt::format("  {}  {}  {}, {}", HistoryText::when(entry.finished), entry.cardName,
                                       countedFiles(entry.files), formatBytesShort(entry.bytes));
        if (entry.generations.size() > 1)
            text += fmt::format(", {} generations", entry.generations.size());
        if (entry.project)
            text += ", " + *entry.project;
        console.print(TerminalText::printable(text) + "  " + console.toned(state.text, toneOf(state.tone)));
        for (const HistoryDestination& destination : entry.destinations)
            console.print("    " + TerminalText::printable(destination.cardPath));
        console.print("    " + entry.id);
    }

    std::string date_;
    std::string forget_;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeHistoryCommand() { return std::make_unique<HistoryCommand>(); }

} // namespace velmora
