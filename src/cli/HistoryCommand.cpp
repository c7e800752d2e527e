#include "cli/Commands.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/TerminalText.h"
#include "memory/HistoryView.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

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
        Remembered remembered = history.recall();
        std::vector<HistoryEntry>& entries = remembered.entries;
        std::erase_if(entries, [&](const HistoryEntry& entry) { return !date_.empty() && entry.date != date_; });
        if (json_) {
            for (const HistoryEntry& entry : entries)
                console.event({{"event", "entry"}, {"entry", entry}});
            return ExitStatus::ok;
        }
        for (const HistoryDay& day : HistoryView::build(entries)) {
            console.print(console.toned(TerminalText::printable(day.date), Console::Tone::bold));
            for (const HistoryRow& row : day.rows)
                show(row, console);
        }
        for (const HistoryGap& gap : remembered.gaps)
            console.print(
                console.toned(TerminalText::printable("Not listed here: " + gap.text() + "."), Console::Tone::warning));
        if (entries.empty())
            console.print("No card has been backed up yet.");
        return ExitStatus::ok;
    }

private:
    ExitStatus forget(HistorySession& history, Console& console) const {
        switch (history.store().remove(forget_)) {
        case HistoryWrite::written:
            if (json_)
                console.event({{"event", "result"}, {"exitStatus", 0}, {"removed", forget_}});
            else
                console.print("Removed " + TerminalText::printable(forget_) + ".");
            return ExitStatus::ok;
        case HistoryWrite::busy:
            throw std::runtime_error("the card history is busy — try again in a moment");
        case HistoryWrite::unchanged:
            throw std::runtime_error("the history has no entry " + TerminalText::printable(forget_));
        case HistoryWrite::newer:
            throw std::runtime_error("nothing was removed: a newer version of Velmora has written the history");
        case HistoryWrite::failed:
            break;
        }
        throw std::runtime_error("the history could not be written");
    }

    static void show(const HistoryRow& row, Console& console) {
        std::string text = fmt::format("  {}  {}  {}", row.time, row.cardName, row.size);
        if (row.generations > 1)
            text += fmt::format(", {} generations", row.generations);
        if (!row.project.empty())
            text += ", " + row.project;
        console.print(TerminalText::printable(text) + "  " + console.toned(row.status, toneOf(row.tone)));
        for (const std::string& folder : row.folders)
            console.print("    " + TerminalText::printable(folder));
        console.print("    " + TerminalText::printable(row.id));
    }

    std::string date_;
    std::string forget_;
    bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeHistoryCommand() { return std::make_unique<HistoryCommand>(); }

} // namespace velmora
