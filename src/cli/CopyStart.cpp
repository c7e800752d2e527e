#include "cli/CopyStart.h"

#include "base/Flag.h"
#include "base/PauseGate.h"
#include "base/Text.h"
#include "cli/CardWords.h"
#include "cli/Console.h"
#include "cli/HistorySession.h"
#include "cli/Interrupts.h"
#include "cli/StatusJson.h"
#include "cli/TerminalText.h"
#include "clips/ClipDetector.h"
#include "disks/CardIdentity.h"
#include "disks/SpaceEstimator.h"
#include "engine/Layout.h"
#include "engine/OffloadOptions.h"
#include "job/JobProgress.h"
#include "job/JobWords.h"
#include "job/OffloadJob.h"
#include "job/RateMemory.h"
#include "memory/BackedUpPrompt.h"
#include "memory/CardNaming.h"
#include "memory/HistoryText.h"

#include <fmt/format.h>
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

bool passesPreflight(const JobConfig& config, const OffloadOptions& options) {
    try {
        OffloadJob::checkInputs(config, options);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void askAgain(const CardInsight& insight, const std::string& name, const std::string& date, const Choice& choice,
              CommandContext& context) {
    Console& console = context.console;
    const BackedUpPromptModel prompt = BackedUpPrompt::build({{*insight.match, name}}, date);
    say(console, prompt.title + ":");
    for (const std::string& line : prompt.lines)
        say(console, "  " + line);
    for (const std::string& line : CardWords::offers(insight))
        say(console, line);
    if (!choice.again && !asks(console, prompt.question))
        throw OffloadError::preflight(PreflightCode::other, prompt.title + " — add --again to copy it again in full.");
}

bool mayVerifyInProxy(const JobConfig& config) { return config.verifyInProxy && config.proxy.enabled; }

// Of the clips that get proxies, told from their sizes. To look at the clips alone takes next to nothing.
double footageSeconds(const JobConfig& config, const SourceScan& card) {
    double seconds = 0;
    if (config.proxy.enabled)
        for (const Clip& clip : ClipDetector::detect(card.files))
            seconds += clip.isCameraProxy ? 0 : SpaceEstimator::seconds(clip, nullptr);
    return seconds;
}

// The first look at the card. A pause that is asked for meanwhile shows at once and is held when the look is done; the
// card may be another one after it.
class FirstLook {
public:
    FirstLook(const std::string& source, CommandContext& context)
        : source_(source), console_(context.console), json_(context.json),
          route_(context.interrupts, {[this] {
                                          cancelled_.set();
                                          pauses_.wake();
                                      },
                                      [this] {
                                          pauses_.pause();
                                          show(false);
                                      },
                                      [this] { pauses_.resume(); }}) {}

    CardInsight take(HistoryStore& store, const Remembered& history) {
        const auto isCancelled = [this] { return cancelled_.isSet(); };
        for (;;) {
            identity_ = CardIdentity::momentary(source_);
            CardInsight insight =
                CardInspector::inspect(source_, &store, &history, isCancelled, CardInspector::World::real());
            if (!pauses_.isPaused())
                return insight;
            show(true);
            if (!pauses_.waitWhilePaused(isCancelled))
                throw Cancelled();
            if (CardIdentity::withVolume(source_) == identity_) // only a volume that names itself is known again
                return insight;
        }
    }
    const std::optional<std::string>& identity() const { return identity_; }

private:
    void show(bool held) {
        JobStatus status;
        status.paused = true;
        status.pauseHeld = held;
        status.pauseStep = "the check of the card";
        console_.log(JobWords::pauseText(status).value_or(""));
        if (json_)
            console_.event(StatusJson::status(status, JobProgress(0)));
    }

    const std::string& source_;
    Console& console_;
    bool json_;
    Flag cancelled_;
    PauseGate pauses_;
    std::optional<std::string> identity_;
    Interrupts::Route route_; // last: it calls what stands above
};

} // namespace

std::optional<Listing> prepare(JobConfig& config, const OffloadOptions& options, const Choice& choice,
                               HistorySession& history, CommandContext& context) {
    Console& console = context.console;
    if (config.date && !Layout::isDate(*config.date))
        throw OffloadError::preflight(PreflightCode::date, "Date must be YYYY-MM-DD (got “" + *config.date + "”).");
    if (!passesPreflight(config, options))
        return {};
    CardInsight insight;
    const Remembered remembered = config.recordHistory ? history.recall() : Remembered();
    std::optional<std::string> identity;
    {
        FirstLook look(config.source, context);
        HistoryStore store = history.store();
        insight = look.take(store, remembered);
        identity = look.identity();
    }
    // The job refuses a card that cannot be read, with its code. Only a card that was swapped is refused here.
    if (insight.error && insight.fingerprint.empty())
        return {};
    if (insight.error)
        throw OffloadError::failed(*insight.error);
    const std::string today = Layout::today();
    const std::string date = config.date.value_or(today);
    const CardNameInput input{"card", config.cardName, &insight, Layout::defaultCardName(config.source)};
    const CardNaming::Name name =
        CardNaming::resolve(choice.suggestFromClips, {input}, remembered.entries, date, today, config.project)
            .at("card");
    if (!config.cardName)
        say(console, CardNaming::sentence(name, input));
    if (insight.nameNote && !config.cardName)
        say(console, *insight.nameNote);
    config.cardName = name.name;
    const RateMemory rates = RateMemory::load(RateMemory::pathIn(history.folder()));
    if (const auto seconds =
            rates.estimate({.bytes = static_cast<double>(insight.totalBytes),
                            .footageSeconds = footageSeconds(config, insight.listing),
                            .readBack = config.verify && !mayVerifyInProxy(config),
                            .analyze = config.analyzeClips,
                            .proxy = config.proxy.enabled ? std::optional(config.proxy.codec) : std::nullopt}))
        say(console, countedFiles(insight.fileCount) + ", " + formatBytes(insight.totalBytes) + ":" +
                         RateMemory::startText(*seconds, config.proxy.enabled));
    if (insight.isEmptied())
        say(console, HistoryText::emptied(insight.match->entry));
    else if (BackedUpPrompt::shouldAsk(&insight)) {
        askAgain(insight, Layout::sanitize(name.name), date, choice, context);
        if (!choice.again)
            return {}; // while the question stood, much may have happened to the card
    } else if (insight.match) {
        say(console, HistoryText::line(*insight.match, true).text);
        for (const std::string& line : CardWords::offers(insight))
            say(console, line);
    }
    if (!identity)
        return {}; // it is gone
    return Listing{std::move(insight.listing), *identity};
}

} // namespace velmora::CopyStart
