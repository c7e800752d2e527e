#include "cli/StatusJson.h"

#include "base/Text.h"
#include "job/JobProgress.h"
#include "records/OffloadReport.h"

#include <nlohmann/json.hpp>

namespace velmora::StatusJson {

namespace {

template <class T>
void putIfSet(nlohmann::json& object, const char* key, const std::optional<T>& value) {
    if (value)
        object[key] = *value;
}

// One value for each destination, null where it is not known.
nlohmann::json orNull(const std::vector<std::optional<double>>& values) {
    auto list = nlohmann::json::array();
    for (const auto& value : values)
        list.push_back(value ? nlohmann::json(*value) : nlohmann::json());
    return list;
}

void putPromises(nlohmann::json& object, const JobStatus& status) {
    object["phase"] = name(status.phase);
    object["safeToEject"] = status.safeToEject;
    object["safeToFormat"] = status.safeToFormat;
    putIfSet(object, "warning", status.warning());
    if (!status.warnings.empty())
        object["warnings"] = status.warnings;
    putIfSet(object, "note", status.note);
    putIfSet(object, "error", status.error);
    if (status.errorCode)
        object["errorCode"] = name(*status.errorCode);
}

nlohmann::json failedFiles(const OffloadReport& report) {
    auto list = nlohmann::json::array();
    for (const auto* file : report.failedFiles()) {
        nlohmann::json entry = {{"path", file->path}, {"destinations", file->destinations}};
        putIfSet(entry, "sourceError", file->sourceError);
        auto errors = nlohmann::json::array();
        for (const auto& error : file->errors)
            errors.push_back(error ? nlohmann::json(*error) : nlohmann::json());
        entry["errors"] = std::move(errors);
        list.push_back(std::move(entry));
    }
    return list;
}

nlohmann::json clips(const OffloadReport& report) {
    auto list = nlohmann::json::array();
    for (const ClipEntry& clip : report.clips) {
        nlohmann::json entry = {{"clip", withValidUtf8(clip.clip.path)}, {"proxyStatus", name(clip.proxyStatus)}};
        putIfSet(entry, "probeError", clip.probeError);
        putIfSet(entry, "proxyPath", clip.proxyPath);
        putIfSet(entry, "proxyNote", clip.proxyNote);
        putIfSet(entry, "content", clip.content);
        list.push_back(std::move(entry));
    }
    return list;
}

} // namespace

nlohmann::json status(const JobStatus& status, const JobProgress& progress) {
    nlohmann::json object = {{"event", "status"},
                             {"paused", status.paused},
                             {"pauseHeld", status.pauseHeld},
                             {"pausedSeconds", status.pausedTotal}};
    putPromises(object, status);
    putIfSet(object, "pauseStep", status.pauseStep);
    if (status.copy) {
        const auto& copy = *status.copy;
        object.update({{"totalFiles", copy.totalFiles},
                       {"totalBytes", copy.totalBytes},
                       {"fileIndex", copy.fileIndex},
                       {"currentFile", copy.currentFile},
                       {"readBytes", copy.readBytes},
                       {"checkedBytes", copy.checkedBytes},
                       {"bytesToCheck", copy.bytesToCheck},
                       {"writtenBytes", copy.writtenBytes},
                       {"bytesToWrite", copy.bytesToWrite},
                       {"handledBytes", copy.handledBytes},
                       {"verifiedBytes", copy.verifiedBytes},
                       {"verifyingFiles", copy.verifyingFiles},
                       {"errors", copy.errors}});
    }
    if (status.verifyInProxy)
        object["verifyInProxy"] = true;
    if (status.clipCount > 0)
        object.update({{"clipIndex", status.clipIndex},
                       {"clipCount", status.clipCount},
                       {"clipName", withValidUtf8(status.clipName)},
                       {"clipFraction", status.clipFraction},
                       {"proxiesDone", status.proxiesDone},
                       {"proxiesFailed", status.proxiesFailed},
                       {"contentWarnings", status.contentWarnings}});
    putIfSet(object, "examining", status.examining);
    if (!status.verifyDoneByDest.empty())
        object.update({{"verifyDoneByDest", status.verifyDoneByDest}, {"verifyTotalByDest", status.verifyTotalByDest}});
    putIfSet(object, "share", progress.share());
    object["destShares"] = orNull(progress.destShares());
    object["destSecondsLeft"] = orNull(progress.destEtas());
    object["readRate"] = progress.readRate();
    object["destRates"] = progress.destRates();
    object["verifyRates"] = progress.verifyRates();
    putIfSet(object, "secondsLeft", progress.eta());
    return object;
}

nlohmann::json result(const JobStatus& status, const OffloadReport* report, const LastWords& words, int exitStatus) {
    nlohmann::json object = {{"event", "result"}, {"exitStatus", exitStatus}, {"pausedSeconds", status.pausedTotal}};
    putPromises(object, status);
    const auto put = [&](const char* key, const std::string& text) {
        if (!text.empty())
            object[key] = text;
    };
    put("happened", words.happened);
    put("safeNow", words.safe);
    put("next", words.next);
    putIfSet(object, "copySucceeded", status.copySucceeded);
    if (report == nullptr)
        return object;
    object.update({{"cardName", report->cardName},
                   {"date", report->date},
                   {"source", report->source},
                   {"verified", report->verified},
                   {"totalFiles", report->totalFiles},
                   {"totalBytes", report->totalBytes},
                   {"copySeconds", report->copySeconds()},
                   {"verifySeconds", report->verifySeconds()},
                   {"failedFiles", failedFiles(*report)}});
    putIfSet(object, "verifyNotes", report->verifyNotes);
    if (!report->clips.empty())
        object.update({{"clips", clips(*report)}, {"contentWarnings", report->contentWarnings().size()}});
    auto destinations = nlohmann::json::array();
    for (const auto& destination : report->destinations)
        destinations.push_back({{"root", destination.root},
                                {"cardPath", destination.cardPath},
                                {"filesOK", destination.filesOK},
                                {"filesFailed", destination.filesFailed}});
    object["destinations"] = std::move(destinations);
    return object;
}

} // namespace velmora::StatusJson
