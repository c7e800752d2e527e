#include "cli/CopyStart.h"

#include "base/Flag.h"
#include "base/Text.h"
#include "cli/CardWords.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/Interrupts.h"
#include "cli/StatusJson.h"
#include "cli/TerminalText.h"
#include "engine/Layout.h"
#include "job/RateMemory.h"
#include "memory/BackedUpPrompt.h"
#include "memory/CardNaming.h"
#include "memory/HistoryText.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <iostream>

namespace velmora::CopyStart {

namespace {

void say(Console& console, const std::string& line) { console.log(TerminalText::printable(line)); }

// Only a person at a terminal can answer; a script has to say it beforehand.
bool asks(Console& console, const std::string& question) {
    if (::isatty(STDIN_FILENO) != 1 || !console.showsProgress())
        return false;
    console.log(TerminalText::printable(question) + " [y/N]");
    std::string answer;
    std::getline(std::cin, answer);
    answer = toLower(trim(answer));
    return answer == "y" || answer == "yes";
}

bool mayCopyAgain(const CardInsight& insight, const std::string& name, const std::string& date, const Choice& choice,
                  Console& console) {
    const BackedUpPromptModel prompt = BackedUpPrompt::build({{*insight.match, name}}, date);
    say(console, prompt.title + ":");
    for (const std::string& line : prompt.lines)
        say(console, "  " + line);
    for (const std::string& line : CardWords::offers(insight))
        say(console, line);
    if (choice.again || asks(console, prompt.question))
        return true;
    say(console, prompt.question);
    const std::string refusal = prompt.title + " — add --again to copy it again in full.";
    if (choice.json) {
        JobStatus status;
        status.phase = JobStatus::Phase::failed;
        status.error = refusal;
        status.errorCode = PreflightCode::other;
        console.event(StatusJson::result(status, nullptr, static_cast<int>(ExitStatus::refused)));
    }
    console.log("refused: other: " + refusal);
    return false;
}

} // namespace

bool prepare(JobConfig& config, const Choice& choice, HistorySession& history, CommandContext& context) {
    Console& console = context.console;
    CardInsight insight;
    const std::vector<HistoryEntry> entries = config.recordHistory ? history.load() : std::vector<HistoryEntry>();
    {
        Flag cancelled;
        const Interrupts::Route route(context.interrupts, {[&] { cancelled.set(); }, {}, {}});
        HistoryStore store = history.store();
        insight = CardInspector::inspect(
            config.source, &store, &entries, [&] { return cancelled.isSet(); }, CardInspector::World::real());
    }
    // What keeps the card from being read is told by the job, with its code; a swapped card is known here only.
    if (insight.error && insight.fingerprint.empty())
        return true;
    if (insight.error)
        throw OffloadError::failed(*insight.error);
    const std::string today = Layout::today();
    const std::string date = config.date.value_or(today);
    const CardNameInput input{"card", config.cardName, &insight, Layout::defaultCardName(config.source)};
    const CardNaming::Name name =
        CardNaming::resolve(choice.suggestFromClips, {input}, entries, date, today, config.project).at("card");
    if (!config.cardName)
        say(console, CardNaming::sentence(name, input));
    if (insight.nameNote && !config.cardName)
        say(console, *insight.nameNote);
    config.cardName = name.name;
    const RateMemory rates = RateMemory::load(RateMemory::pathIn(history.folder()));
    if (const auto seconds = rates.estimate({.bytes = static_cast<double>(insight.totalBytes),
                                             .readBack = config.verify,
                                             .analyze = false,
                                             .proxy = {}}))
        say(console, countedFiles(insight.fileCount) + ", " + formatBytes(insight.totalBytes) + ":" +
                         RateMemory::startText(*seconds, false));
    if (insight.isEmptied())
        say(console, HistoryText::emptied(insight.match->entry));
    else if (BackedUpPrompt::shouldAsk(&insight))
        return mayCopyAgain(insight, Layout::sanitize(name.name), date, choice, console);
    else if (insight.match) {
        say(console, HistoryText::line(*insight.match, true).text);
        for (const std::string& line : CardWords::offers(insight))
            say(console, line);
    }
    return true;
}

} // namespace velmora::CopyStart
