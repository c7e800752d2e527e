#include "verify/VerifyReport.h"

#include "base/Text.h"
#include "blocks/HashAlgo.h"

#include <fmt/format.h>

namespace velmora::VerifyReport {

namespace {

std::int64_t count(const auto& list) { return static_cast<std::int64_t>(list.size()); }

std::string unfinishedText(const VerifyResult& result) {
    std::string text = result.copyBrokeOff
                           ? "The backup is not finished: the copy of its newest generation was interrupted. Do not "
                             "format the card yet — insert it again and choose \"Finish interrupted backup\"."
                           : "The backup is not finished: the newest generation was being verified with the proxies "
                             "and the verification did not end (or its result is not written on all destinations). Do "
                             "not format the card yet — insert it again and choose \"Finish interrupted backup\".";
    if (result.success()) // beside a mismatch that would be a contradiction
        text += fmt::format(" The files with a written record match ({})", result.ok);
    return text + fmt::format(" — on the command line: velmora append CARD --into '{}', with --into for each further "
                              "disk of the backup",
                              result.cardPath);
}

std::string_view recordName(const VerifyResult& result) {
    return result.basis == "hashList" ? "checksum list" : result.basis == "report" ? "report" : "MHL";
}

std::string failedAtCopyText(std::int64_t n) {
    return fmt::format("{} already failed during the copy and the record has no valid checksum", countedFiles(n));
}

std::string filesWrongText(const VerifyResult& result) {
    std::vector<std::string> parts;
    if (!result.changed.empty() || !result.missing.empty() || !result.unreadable.empty())
        parts.push_back(fmt::format("Mismatch: {}, missing {}, unreadable {}", countedFiles(count(result.changed)),
                                    count(result.missing), count(result.unreadable)));
    if (!result.failedAtCopy.empty())
        parts.push_back(failedAtCopyText(count(result.failedAtCopy)));
    const std::string text = join(parts, "; ") + " — the files are named below.";
    return result.unfinished ? text + " " + unfinishedText(result) : text;
}

} // namespace

std::string basis(const VerifyResult& result) {
    std::vector<std::string> names;
    for (const std::string& algorithm : result.hashAlgorithms)
        names.push_back(HashAlgo::label(algorithm));
    // A record in which every copy failed holds no checksum at all.
    const std::string algorithms = names.empty() ? "no checksum" : join(names, ", ");
    if (result.basis == "pending")
        return "the record of the unfinished generation is not written yet";
    if (result.basis == "ascmhl")
        return fmt::format("ASC MHL, {}{}, {}", counted(result.generations, "generation", "generations"),
                           result.nestedHistories > 0
                               ? ", " + counted(result.nestedHistories, "nested history", "nested histories")
                               : "",
                           algorithms);
    return std::string(recordName(result)) + ", " + algorithms;
}

Summary summary(const VerifyResult& result) {
    switch (result.verdict()) {
    case VerifyResult::Verdict::folderGone:
        return {"Cannot verify: " + result.cardPath +
                    ". The backup folder disappeared — the disk may have been disconnected.",
                Tone::error};
    case VerifyResult::Verdict::cancelled:
        return {fmt::format("Verification cancelled after {}. A cancelled verification writes no report.",
                            countedFiles(result.checked)),
                Tone::warning};
    case VerifyResult::Verdict::filesWrong:
        return {filesWrongText(result), Tone::error};
    case VerifyResult::Verdict::unfinished:
        return {unfinishedText(result), Tone::warning};
    case VerifyResult::Verdict::nothingCompared:
        return {"Nothing was verified: the records name no file that could be compared.", Tone::warning};
    case VerifyResult::Verdict::recordsDamaged:
        return {fmt::format("The records of the backup are damaged ({}) — what they still name matches: {} ({})",
                            counted(count(result.chainProblems), "problem", "problems"), countedFiles(result.ok),
                            basis(result)),
                Tone::warning};
    case VerifyResult::Verdict::clean:
        break;
    }
    const std::string files = result.ok == 1 ? "the file matches" : fmt::format("all {} files match", result.ok);
    return {fmt::format("Verified: {} ({})", files, basis(result)), Tone::ok};
}

std::vector<std::string> warnings(const VerifyResult& result) {
    std::vector<std::string> lines;
    if (const std::int64_t n = count(result.extra); n > 0)
        lines.push_back(fmt::format("{} extra (not in the {}).", countedFiles(n), recordName(result)));
    if (const std::int64_t n = count(result.failedAtCopy); n > 0)
        lines.push_back(fmt::format("{} already failed during the copy.", countedFiles(n)));
    if (const std::int64_t n = count(result.failedSuperseded); n > 0)
        lines.push_back(fmt::format("{} {} the record \"failed during the copy\" in the newest generation — verified "
                                    "against an older valid generation.",
                                    countedFiles(n), plural(n, "has", "have")));
    if (const std::int64_t n = result.onlyInReport; n > 0)
        lines.push_back(fmt::format("{} {} never read back after the copy and {} not in the {} — compared with the "
                                    "digest in the report.",
                                    countedFiles(n), plural(n, "was", "were"), plural(n, "is", "are"),
                                    recordName(result)));
    if (result.onOtherDisk)
        lines.push_back("This folder is on a disk that the report of the backup does not name: it is a copy of the "
                        "backup, and stands for none of its disks.");
    lines.insert(lines.end(), result.chainProblems.begin(), result.chainProblems.end());
    return lines;
}

std::vector<std::string> machineLines(const VerifyResult& result) {
    std::vector<std::string> lines = fileLines(result);
    for (const std::string& problem : result.chainProblems)
        lines.push_back("CHAIN    " + problem);
    return lines;
}

std::vector<std::string> fileLines(const VerifyResult& result) {
    std::vector<std::string> lines;
    const auto add = [&](std::string_view word, const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            lines.push_back(std::string(word) + text);
    };
    add("MISMATCH  ", result.changed);
    add("MISSING  ", result.missing);
    for (const auto& each : result.unreadable)
        lines.push_back(fmt::format("ERROR    {}: {}", each.path, each.error));
    add("EXTRA    ", result.extra);
    add("FAILED-AT-COPY  ", result.failedAtCopy);
    add("FAILED-SUPERSEDED  ", result.failedSuperseded);
    return lines;
}

std::string cliSummary(const VerifyResult& result, double seconds) {
    const std::string rate =
        seconds > 0 ? fmt::format("{:.0f}", static_cast<double>(result.bytesRead) / seconds / 1e6) : "-";
    std::string text = fmt::format("Verified {} files ({}) in {:.1f} s, {} MB/s", result.checked,
                                   formatBytes(result.bytesRead), seconds, rate);
    if (!result.success())
        text += fmt::format(" — PROBLEMS FOUND: mismatch {}, missing {}, unreadable {}, extra {}, failed during the "
                            "copy {}",
                            count(result.changed), count(result.missing), count(result.unreadable), count(result.extra),
                            count(result.failedAtCopy));
    if (result.unfinished)
        text += " — BACKUP UNFINISHED: " + unfinishedText(result);
    return text;
}

} // namespace velmora::VerifyReport
