#pragma once

#include "blocks/ManifestFile.h"
#include "job/OffloadJob.h"
#include "memory/ResumePlanner.h"

namespace velmora {

namespace fs = std::filesystem;
using test::FileTree::contents;
using testing::HasSubstr;
using Phase = JobStatus::Phase;
constexpr std::size_t mebibyte = 1 << 20;

// A card, its two disks, and jobs that copy it, append to the copy or repair it.
class EarlierBackup : public testing::Test {
protected:
    test::TempFolder temp;
    test::TempFolder reader{"/dev/shm"}; // the card lies on a volume of its own
    OffloadOptions options;
    JobServices services;
    bool recorded = true; // in the card history
    std::unique_ptr<OffloadJob> job;
    std::vector<std::string> cards{temp / "a/2026-03-14/CARD", temp / "b/2026-03-14/CARD"};

    void SetUp() override {
        ::setenv("VELMORA_SETTINGS_DIR", (temp / "settings").c_str(), 1);
        fs::create_directory_symlink(reader.path(), temp / "card");
        options.checkpointBlocks = 2;
        options.cardMedium = [](const std::string&) { return CardKey{"1A2B3C4D", std::int64_t{64} << 30}; };
        shoot({{"DCIM/1.mov", 2'100'000}, {"DCIM/2.mov", 1'000'000}, {"3.txt", 50}});
        fs::create_directories(temp / "a");
        fs::create_directories(temp / "b");
    }
    void TearDown() override { ::unsetenv("VELMORA_SETTINGS_DIR"); }

    void shoot(const std::vector<test::FileTree::File>& files) { test::FileTree::make(temp / "card", files); }
    JobConfig config() const {
        JobConfig config(temp / "card", {temp / "a", temp / "b"});
        config.date = "2026-03-14";
        config.cardName = "CARD";
        config.chunkMB = 1;
        config.allowSameDevice = true;
        return config;
    }
    JobStatus run(JobConfig config, const std::vector<std::string>* repair = nullptr, bool compares = false) {
        job = std::make_unique<OffloadJob>(std::move(config), options, services);
        if (repair)
            job->repairInto(*repair);
        if (compares)
            job->compareCard();
        job->run({});
        return job->status();
    }
    JobStatus copy() { return run(config()); }
    JobStatus append(const std::vector<std::string>& paths, bool compares = false) {
        JobConfig into = config();
        into.appendInto = paths;
        into.recordHistory = recorded;
        return run(into, nullptr, compares);
    }
    JobStatus repair(const std::vector<std::string>& paths, bool verify = true) {
        JobConfig into = config();
        into.verify = verify;
        into.recordHistory = recorded;
        return run(into, &paths);
    }
    std::map<std::string, std::string> disks() const {
        auto all = contents(temp / "a");
        for (const auto& [path, content] : contents(temp / "b"))
            all["b/" + path] = content;
        return all;
    }
    // Both disks and the card as they are now; `restore` brings them back, times and all.
    void keep() const { shell("rm -rf kept; mkdir kept; cp -a card/. kept/card && cp -a a b kept"); }
    void restore() const { shell("rm -rf card/* a b; cp -a kept/card/. card/; cp -a kept/a kept/b ."); }
    void shell(const std::string& command) const {
        ASSERT_EQ(std::system(("cd '" + (temp / "") + "' && " + command).c_str()), 0) << command;
    }
    static void replaceIn(const std::string& path, const std::string& what, const std::string& with) {
        std::string text = test::FileTree::read(path);
        const auto at = text.find(what);
        ASSERT_NE(at, std::string::npos) << what;
        test::FileTree::write(path, text.replace(at, what.size(), with));
    }
    void dieAtBlockNine() {
        options.crashAfterBlock = [](std::int64_t, std::int64_t block) { return block == 9; };
        job = std::make_unique<OffloadJob>(config(), options);
        EXPECT_THROW(job->run({}), SimulatedCrash);
        job.reset();
        options.crashAfterBlock = {};
    }
    // A line in the manifests of both disks, as a run that died leaves it.
    void line(std::int64_t generation, const std::string& path) const {
        ManifestRecord record;
        record.gen = generation;
        record.path = path;
        for (const std::string& card : cards)
            ManifestFile::append(card, std::span(&record, 1));
    }
    std::string reportOf(std::size_t d) const { return ResumePlanner::reportPath(cards[d], 1); }
};

} // namespace velmora
