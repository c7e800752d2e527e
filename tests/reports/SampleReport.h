#pragma once

#include "records/OffloadReport.h"
#include "reports/ReportWriter.h"

namespace velmora {

// A verified report of two files on the given card folders.
inline OffloadReport sampleReport(const std::vector<std::string>& cardPaths, std::int64_t generation = 1) {
    OffloadReport report;
    report.tool = "offload";
    report.version = "0.7.0";
    report.hashAlgorithms = {"xxh64"};
    if (generation > 1)
        report.generation = generation;
    report.kind = generation > 1 ? "append" : "copy";
    report.cardName = "A001";
    report.date = "2026-03-14";
    report.source = "/media/dit/A001";
    report.sourceFilesystem = "exfat";
    report.started = {1773473405, 0}; // 2026-03-14T07:30:05Z
    report.copyFinished = {1773473415, 0};
    report.finished = {1773473420, 0};
    report.verified = true;
    for (const auto& cardPath : cardPaths)
        report.destinations.push_back(
            {"/mnt/x", cardPath, "ext4", 0, 0, true, "read-back", std::nullopt, std::nullopt});
    const std::string prefix = generation > 1 ? "more/" : "";
    for (const auto& [path, size, hash] : {std::tuple{"a & b.mov", 1000000000LL, "00000000000000aa"},
                                           std::tuple{"clip/C2.mov", 500000000LL, "00000000000000bb"}}) {
        OffloadReport::FileEntry file;
        file.path = prefix + path;
        file.size = size;
        file.modified = {1773470000, 0};
        file.xxh64 = hash;
        file.destinations.assign(cardPaths.size(), "verified");
        file.errors.resize(cardPaths.size());
        report.files.push_back(file);
    }
    report.totalFiles = 2;
    report.totalBytes = 1500000000;
    report.countFiles();
    return report;
}

// All records of a report, into one card folder.
inline void commitReport(const OffloadReport& report, const std::string& card, const ReportWriter::Stamp& stamp,
                         bool create = true) {
    ReportWriter::commit(report, ReportWriter::Pages(report), card, stamp, create);
}

} // namespace velmora
