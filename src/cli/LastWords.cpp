#include "cli/LastWords.h"

#include "base/RelativePath.h"
#include "base/Text.h"
#include "cli/CardWords.h"
#include "cli/ShellText.h"
#include "records/OffloadReport.h"

#include <fmt/format.h>

namespace velmora {

namespace {

using Phase = JobStatus::Phase;

std::string happened(const JobStatus& status, const OffloadReport* report) {
    if (status.phase == Phase::cancelled && report != nullptr && report->verifyPending.value_or(false))
        return "Cancelled: the card is copied, but its verification did not come to its end.";
    if (status.phase == Phase::cancelled)
        return report != nullptr ? "Cancelled: what was copied whole stays and is recorded."
                                 : "Cancelled before anything was recorded.";
    if (status.errorCode)
        return "Refused: nothing was changed.";
    if (status.phase != Phase::done)
        return "The run broke off.";
    if (report != nullptr && report->hasFailedFiles())
        return countedFiles(static_cast<std::int64_t>(report->failedFiles().size())) + " failed.";
    if (report != nullptr && report->verifyPending.value_or(false))
        return "The card is copied, but its verification did not come to its end.";
    if (report != nullptr && !report->verified)
        return "The card is copied, but the copy was not read back.";
    return "The run ended, and something that a promise needs is not so.";
}

std::string safe(const JobStatus& status) {
    if (status.safeToFormat && status.safeToEject)
        return "Both promises stand.";
    if (status.safeToEject)
        return "The card may be ejected. Do not format it.";
    return status.errorCode ? "Do not format the card on the strength of this run."
                            : "Do not format the card, and leave the copies as they are.";
}

std::string inspect(const Errand& errand) { return "velmora inspect " + ShellText::quoted(errand.source); }

std::string copyAgain(const Errand& errand) {
    std::vector<std::string> roots = errand.roots;
    if (errand.into)
        for (const std::string& folder : errand.folders) // ROOT/<date>/<card name>
            roots.emplace_back(RelativePath::folder(RelativePath::folder(folder)));
    return CardWords::copyAgainCommand(errand.source, roots);
}

// A refusal whose cause lies outside of the command passes with that cause. One that lies in the command names what to
// change there.
std::string afterRefusal(PreflightCode code, const Errand& errand) {
    switch (code) {
    case PreflightCode::appendFailedFile:
    case PreflightCode::appendMissingFile:
        return CardWords::intoCommand("repair", errand.source, errand.folders);
    case PreflightCode::appendOtherCard:
    case PreflightCode::appendConflict:
    case PreflightCode::repairConflict:
    case PreflightCode::appendNoReport:
        return copyAgain(errand);
    case PreflightCode::sourceNotFound:
    case PreflightCode::sourceUnreadable:
    case PreflightCode::noReadAccess:
    case PreflightCode::destinationNotFound:
    case PreflightCode::destinationNotWritable:
    case PreflightCode::destinationUnreadable:
    case PreflightCode::noSpace:
    case PreflightCode::appendBusy:
        return errand.typed;
    default:
        return errand.into && code != PreflightCode::chunkSize && code != PreflightCode::bufferCount ? inspect(errand)
                                                                                                     : "";
    }
}

// What is left of the proxies is made by the run that goes on.
std::string proxyOptions(const OffloadReport& report) {
    if (!report.verifyPending.value_or(false) || !report.proxy)
        return "";
    return fmt::format(" --proxy {} --proxy-height {}", name(report.proxy->codec), report.proxy->height);
}

std::string next(const JobStatus& status, const OffloadReport* report, const Errand& errand) {
    if (status.safeToFormat && status.safeToEject)
        return "";
    if (status.errorCode)
        return afterRefusal(*status.errorCode, errand);
    std::vector<std::string> folders = errand.folders;
    if (report != nullptr && folders.empty())
        for (const auto& destination : report->destinations)
            folders.push_back(destination.cardPath);
    switch (status.remedy) {
    case Remedy::append:
        return CardWords::intoCommand("append", errand.source, folders) + (report ? proxyOptions(*report) : "");
    case Remedy::compare:
        return CardWords::intoCommand("append", errand.source, folders) + " --compare";
    case Remedy::repair:
        return CardWords::intoCommand("repair", errand.source, folders);
    case Remedy::inspect:
        return inspect(errand);
    case Remedy::copyAgain:
        return copyAgain(errand);
    case Remedy::otherDisk:
        return "velmora copy " + ShellText::quoted(errand.source) + " --again --dest ANOTHER_DISK";
    case Remedy::none:
        break;
    }
    // Nothing was judged: the run did not get so far. What a copy has begun only its folders tell.
    return errand.into || folders.empty() ? errand.typed : inspect(errand);
}

} // namespace

LastWords LastWords::of(const JobStatus& status, const OffloadReport* report, const Errand& errand) {
    if (status.phase == Phase::done && status.safeToFormat && status.safeToEject)
        return {};
    return {velmora::happened(status, report), velmora::safe(status), velmora::next(status, report, errand)};
}

} // namespace velmora
