#pragma once

#include "blocks/ManifestFile.h"
#include "engine/OffloadEngine.h"
#include "platform/IO.h"
#include "records/OffloadPlan.h"
#include "records/OffloadReport.h"

namespace velmora::test {

// A card and two destinations in folders of their own; small blocks, so that small files have many.
class CopyTest : public ::testing::Test {
protected:
    CopyTest() {
        options.chunkSize = 4096;
        options.bufferCount = 4;
        options.allowSameDevice = options.allowSourceVolume = true;
        for (const char* name : {"a", "b"}) {
            IO::mkdirs(temp / name);
            roots.push_back(temp / name);
        }
        IO::mkdirs(card());
    }
    std::string card() const { return temp / "card"; }
    void put(const std::string& path, std::size_t size, std::uint64_t seed = 1) {
        FileTree::make(card(), {{path, size}}, seed);
    }
    OffloadPlan prepare() { return OffloadEngine(options).prepare({card(), roots, "C", "2026-03-14"}); }
    OffloadReport run() { return run(prepare()); }
    OffloadReport run(OffloadPlan plan) {
        engine = std::make_unique<OffloadEngine>(options);
        if (prepareEngine)
            prepareEngine(*engine);
        return engine->run(std::move(plan));
    }
    // The card folder of a destination, as the last run named it.
    std::string dest(std::size_t d) const { return engine->plan()->cardPaths()[d]; }
    std::map<std::string, std::string> cardTree() const { return FileTree::contents(card()); }
    std::map<std::string, std::string> destTree(std::size_t d) const { // besides records
        auto tree = FileTree::contents(dest(d));
        std::erase_if(tree, [](const auto& entry) { return entry.first.starts_with("_REPORT/"); });
        return tree;
    }
    static bool allVerified(const OffloadReport& report) {
        return report.verified && report.verifyIncomplete != true && report.success();
    }
    static std::vector<ManifestRecord> fileLines(const std::string& cardPath) {
        std::vector<ManifestRecord> found = ManifestFile::read(cardPath);
        std::erase_if(found, [&](const ManifestRecord& record) { return record.kind != ManifestRecord::fileKind; });
        return found;
    }
    static const OffloadReport::FileEntry& entry(const OffloadReport& report, const std::string& path) {
        const auto found = std::ranges::find(report.files, path, &OffloadReport::FileEntry::path);
        return found != report.files.end() ? *found : throw std::runtime_error("not in the report: " + path);
    }
    static std::string error(const OffloadReport& report, const std::string& path, std::size_t d) {
        return entry(report, path).errors.at(d).value_or("");
    }

    TempFolder temp;
    std::vector<std::string> roots;
    OffloadOptions options;
    std::unique_ptr<OffloadEngine> engine;
    std::function<void(OffloadEngine&)> prepareEngine;
};

} // namespace velmora::test
