#include "memory/HistoryStore.h"

#include "base/Text.h"
#include "disks/VolumeSerial.h"
#include "engine/FolderLocks.h"
#include "memory/HistoryRecorder.h"
#include "memory/HistoryRecords.h"
#include "platform/FileLock.h"
#include "platform/IO.h"

namespace velmora {
namespace {

// A history in a folder of its own, its locks beside it.
class History : public testing::Test {
protected:
    void SetUp() override { setenv("VELMORA_SETTINGS_DIR", folder_.path().c_str(), 1); }
    void TearDown() override { unsetenv("VELMORA_SETTINGS_DIR"); }

    std::string path() const { return folder_.path() + "/history.json"; }
    std::string listPath(const std::string& id) const { return folder_.path() + "/history/" + id + ".files.gz"; }
    HistoryStore store(std::size_t maxEntries = 5000) {
        return {folder_.path(), 5.0, maxEntries, [this](std::string_view line) { log_.emplace_back(line); }};
    }
    HistoryWrite add(const std::string& id, std::int64_t finished, std::size_t maxEntries = 5000) {
        return store(maxEntries).update(id, [&](const HistoryEntry*) {
            HistoryEntry entry;
            entry.finished = {finished, 0};
            entry.cardName = id;
            return HistoryStore::Change{entry, std::vector<SourceFile>{{"a.mov", 1, {}}}};
        });
    }
    std::vector<std::string> ids() {
        std::vector<std::string> found;
        for (const HistoryEntry& entry : store().load())
            found.push_back(entry.id);
        return found;
    }

    test::TempFolder folder_;
    std::vector<std::string> log_;
};

TEST_F(History, KeepsTheNewestFirstAndDropsTheOldestWithItsList) {
    EXPECT_EQ(add("b", 20), HistoryWrite::written);
    EXPECT_EQ(add("a", 10), HistoryWrite::written);
    EXPECT_EQ(add("c", 20), HistoryWrite::written); // same end as b: keeps its place behind it
    EXPECT_EQ(ids(), (std::vector<std::string>{"b", "c", "a"}));
    EXPECT_EQ(store().readFileList(store().load().front())->front().relPath, "a.mov");
    EXPECT_EQ(add("d", 30, 3), HistoryWrite::written);
    EXPECT_EQ(ids(), (std::vector<std::string>{"d", "b", "c"}));
    EXPECT_FALSE(IO::exists(listPath("a")));
    EXPECT_EQ(store().remove("b"), HistoryWrite::written);
    EXPECT_EQ(store().remove("b"), HistoryWrite::unchanged);
    EXPECT_FALSE(IO::exists(listPath("b")));
    const auto nothing = [](const HistoryEntry* present) -> std::optional<HistoryStore::Change> {
        EXPECT_EQ(present->cardName, "d");
        return std::nullopt;
    };
    EXPECT_EQ(store().update("d", nothing), HistoryWrite::unchanged);
}

TEST_F(History, SetsDamageAsideAndLeavesANewerVersionAlone) {
    const std::vector<std::string> damaged = {"{",
                                              "[]",
                                              "{\"entries\": [{}], \"version\": 1}",
                                              "{\"entries\": [], \"version\": \"1\"}",
                                              std::string(1000, '['),
                                              "{\"entries\": [], \"version\": 0}",
                                              "{\"entries\": [], \"version\": -1}",
                                              "{\"entries\": " + std::string(50, '[') + std::string(50, ']') + "}"};
    for (const std::string& text : damaged) {
        std::ofstream(path()) << text;
        EXPECT_EQ(add("x", 1), HistoryWrite::written) << text;
        EXPECT_EQ(ids(), std::vector<std::string>{"x"});
    }
    std::size_t aside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
        aside += entry.path().filename().string().starts_with("history.json.corrupt-");
    EXPECT_EQ(aside, damaged.size());
    for (const char* number : {"2", "1.5", "9223372036854775808", "18446744073709551615", "1e30"}) {
        const std::string newer = std::string("{\"entries\": [], \"later\": true, \"version\": ") + number + "}";
        std::ofstream(path()) << newer;
        EXPECT_EQ(add("y", 1), HistoryWrite::unchanged) << number;
        EXPECT_EQ(store().remove("y"), HistoryWrite::newer) << number;
        EXPECT_EQ(IO::readFile(path(), 1000), newer);
        EXPECT_EQ(log_.back(), "history: written by a newer version of Velmora — read only");
    }
}

// A long history is read in two halves, which must say the same as the whole.
TEST(HistoryFile, ReadsAnyLayoutAlike) {
    std::vector<HistoryEntry> entries(300);
    for (std::size_t i = 0; i < entries.size(); ++i)
        entries[i].id = "id" + std::to_string(i);
    entries[7].cardName = "\n    },\n    {\n";
    const std::string text = HistoryFile::write(entries);
    const auto with = [&](const std::string& from, const std::string& to, bool last = false) {
        std::string changed = text;
        const std::size_t at = last ? changed.rfind(from) : changed.find(from);
        return changed.replace(at, from.size(), to);
    };
    const std::string other =
        R"("before": [)" + text.substr(text.find("[") + 1, text.rfind("]") - text.find("[") - 1) + "],\n  ";
    for (const std::string& good :
         {text, replaceAll(text, "\n", ""), with("\"entries\"", other + "\"entries\""),
          with("\"version\"", replaceAll(other, "before", "x") + "\"version\""),
          with("\"version\"", R"("entries": [], "entries": )" +
                                  text.substr(text.find("["), text.rfind("]") - text.find("[") + 1) +
                                  ", \"version\"")}) {
        const HistoryFile::Contents read = HistoryFile::read(good);
        EXPECT_EQ(read.state, HistoryFile::State::good);
        EXPECT_EQ(read.entries, entries);
    }
    for (const std::string& bad : {text.substr(0, text.size() - 3), with("\"id299\"", "7"), with("\"id0\"", "\"/\""),
                                   with("\"id299\"", std::string(40, '[')), text + "x"})
        EXPECT_EQ(HistoryFile::read(bad).state, HistoryFile::State::damaged);
}

TEST_F(History, KeepsWhatVerificationsFoundAndWhatItDoesNotKnow) {
    std::ofstream(path()) << R"({"version":1,"entries":[{"id":"a","source":"","cardName":"","date":"","success":true,
        "finished":"2026-03-14T07:00:00Z","verified":true,"files":0,"bytes":0,"fingerprint":"","shape":"","destinations":
        [{"root":"/a","cardPath":"/a/A"},{"root":"/a","cardPath":"/a/A/"}],"generations":[],"later":{"x":[1]}}]})";
    EXPECT_EQ(store().load().front().destinations.size(), 1U) << "a folder that is named twice is one";
    const auto mark = [&](const HistoryVerification& one) {
        EXPECT_EQ(store().update("a",
                                 [&](const HistoryEntry* present) {
                                     return HistoryStore::Change{HistoryRecords::verified(*present, one), std::nullopt};
                                 }),
                  HistoryWrite::written);
    };
    const Timestamp early{1000, 0};
    const Timestamp late{2000, 0};
    const auto known = [&](const char* folder, std::optional<std::string> serial) {
        return store().recall().verificationOf(folder, serial).value_or(HistoryVerification{});
    };
    mark({"/mnt/a/2026-03-14/A001", "S1", early, {}, ""});
    mark({"/mnt/a/2026-03-14/A001", "S1", {}, late, "missing 1"});
    EXPECT_EQ(known("/media/x/2026-03-14/A001", "S1").failed, late) << "the disk is mounted elsewhere";
    EXPECT_EQ(known("/media/x/2026-03-14/A001", "S1").clean, early);
    EXPECT_EQ(known("/mnt/a/2026-03-14/A001", std::nullopt).found, "missing 1");
    EXPECT_EQ(known("/mnt/a/2026-03-14/A001", "S2").failed, std::nullopt) << "another disk in the same place";
    EXPECT_EQ(known("/media/x/2026-03-14/A001", std::nullopt).failed, std::nullopt);
    mark({"/mnt/a/2026-03-14/A001", "S1", late, {}, ""});
    EXPECT_EQ(known("/mnt/a/2026-03-14/A001", "S1"),
              (HistoryVerification{"/mnt/a/2026-03-14/A001", "S1", late, {}, ""}));
    EXPECT_NE(IO::readFile(path(), 10000).find("\"later\""), std::string::npos) << "written by another version";
}

// It outlives the entry that names the folder, and what an older program does to it.
TEST_F(History, KeepsWhatVerificationsFoundBesideTheEntries) {
    const std::string a = folder_ / "a/2026-03-14/A001";
    const std::string b = folder_ / "b/2026-03-14/A001";
    const auto serial = VolumeFacts::volumeSerialText(folder_.path());
    const auto known = [&](const std::string& folder) {
        return store().recall().verificationOf(folder, serial).value_or(HistoryVerification{});
    };
    for (const std::string& folder : {a, b})
        std::filesystem::create_directories(folder);
    EXPECT_EQ(store().enter({a, serial, {}, Timestamp{1000, 0}, "missing 1"}), HistoryWrite::written);
    EXPECT_EQ(store().enter({b, serial, Timestamp{2000, 0}, {}, ""}), HistoryWrite::written);
    EXPECT_EQ(known(a).found, "missing 1") << "two folders of one disk";
    EXPECT_EQ(known(b).clean, (Timestamp{2000, 0}));
    const auto markInEntry = [&](const HistoryVerification& one) {
        store().update("a", [&](const HistoryEntry*) {
            return HistoryStore::Change{HistoryRecords::verified({}, one), std::nullopt};
        });
    };
    markInEntry({a, serial, Timestamp{999, 0}, {}, ""});
    EXPECT_TRUE(known(a).failed);
    markInEntry({a, serial, Timestamp{1001, 0}, {}, ""});
    EXPECT_FALSE(known(a).failed) << "an older program has read it since";
    markInEntry({a, serial, {}, Timestamp{3000, 0}, "mismatch 1"});
    EXPECT_EQ(known(a).found, "mismatch 1");
    store().enter({a, serial, Timestamp{2000, 0}, {}, ""});
    EXPECT_EQ(store().remove("a"), HistoryWrite::written);
    EXPECT_EQ(known(a).found, "mismatch 1") << "to forget the card makes no bad copy good";
    store().enter({a, serial, Timestamp{2999, 0}, {}, ""});
    EXPECT_TRUE(known(a).failed) << "a word that waited is older than what was found meanwhile";
    const Timestamp now = Timestamp::now();
    store().enter({b, serial, {}, Timestamp{now.seconds + 86400, 0}, "missing 1"});
    store().enter({b, serial, now, {}, ""});
    EXPECT_FALSE(known(b).failed) << "the clock was wrong";
    // Of too many the clean ones go first.
    for (int i = 0; i < 3; ++i)
        store(2).enter({folder_ / ("c" + std::to_string(i)), serial, Timestamp{5000 + i, 0}, {}, ""});
    EXPECT_EQ(store().recall().verifications.size(), 2U);
    EXPECT_TRUE(known(a).failed);
}

TEST_F(History, SaysWhatItMayHaveForgotten) {
    EXPECT_TRUE(store().recall().gaps.empty());
    add("a", 1);
    store().enter({"/mnt/a/2026-03-14/A001", {}, Timestamp{1, 0}, {}, ""});

    for (const std::string name : {"history.json", "verifications.json"}) {
        const std::string file = folder_ / name;
        test::FileTree::write(file, "{");
        const Timestamp written = IO::stat(file).modified;
        Remembered now = store().recall();
        ASSERT_EQ(now.gaps.size(), 1U) << name;
        EXPECT_EQ(now.gaps[0].written, written);
        EXPECT_TRUE(now.gaps[0].path.starts_with(file + ".corrupt-")) << now.gaps[0].path;
        add("b", 2);
        EXPECT_EQ(store().recall().gaps, now.gaps) << "as long as the file stands";
        EXPECT_TRUE(now.hides({}) && now.hides(written));
        EXPECT_FALSE(now.hides(Timestamp{written.seconds + 1, 0}));
        std::filesystem::remove(now.gaps[0].path);
        // One that cannot be read at all, and one that says what no program of today understands.
        std::filesystem::remove(file);
        std::filesystem::create_directory(file);
        EXPECT_EQ(store().recall().gaps.size(), 1U) << name;
        std::filesystem::remove(file);
        test::FileTree::write(file, R"({"version": 2, "list": []})");
        now = store().recall();
        ASSERT_EQ(now.gaps.size(), 1U) << name;
        EXPECT_NE(now.gaps[0].text().find("newer version"), std::string::npos);
        EXPECT_EQ(store().enter({"/x", {}, Timestamp{1, 0}, {}, ""}),
                  name == "history.json" ? HistoryWrite::written : HistoryWrite::newer);
        std::filesystem::remove(file);
    }
}

TEST_F(History, NeverOpensAListOutsideOfItsFolder) {
    HistoryEntry entry;
    entry.fileList = "../../etc/passwd";
    for (const char* id : {"../../etc/passwd", "a/b", "", "."}) {
        entry.id = id;
        EXPECT_FALSE(store().readFileList(entry)) << id;
        EXPECT_EQ(add(id, 1), HistoryWrite::failed) << id;
    }
}

TEST_F(History, TwentyProcessesLoseNoEntry) {
    std::vector<pid_t> children;
    for (int i = 0; i < 20; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            HistoryStore mine(folder_.path(), 60.0);
            const HistoryWrite result = mine.update("p" + std::to_string(i), [&](const HistoryEntry*) {
                HistoryEntry entry;
                entry.finished = {i, 0};
                return HistoryStore::Change{entry, std::vector<SourceFile>{{"f", i, {}}}};
            });
            _exit(result == HistoryWrite::written ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(ids().size(), 20U);
    for (const HistoryEntry& entry : store().load())
        EXPECT_TRUE(store().readFileList(entry)) << entry.id;
}

TEST_F(History, FindsACardByItsKeyOrAFolderByItsShape) {
    std::vector<HistoryEntry> entries(3);
    entries[0].shape = "s";
    entries[0].card = HistoryCard{std::nullopt, "1A2B3C4D", 100, std::nullopt, std::nullopt};
    entries[1].shape = "s";
    entries[2].card = entries[0].card;
    EXPECT_EQ(HistoryStore::findForCard(CardKey{"1A2B3C4D", 100}, "other", entries), &entries[0]);
    EXPECT_EQ(HistoryStore::findForCard(CardKey{"1A2B3C4D", 200}, "s", entries), nullptr);
    EXPECT_EQ(HistoryStore::findForCard(std::nullopt, "s", entries), &entries[1]);
    EXPECT_EQ(HistoryStore::findForCard(std::nullopt, "t", entries), nullptr);
    // A copy that broke off at once hides no earlier backup.
    entries[0].files = 2;
    entries[0] = HistoryRecords::failed(entries[0], {});
    EXPECT_EQ(HistoryStore::findForCard(CardKey{"1A2B3C4D", 100}, "other", entries), &entries[2]);
    entries.pop_back();
    EXPECT_EQ(HistoryStore::findForCard(CardKey{"1A2B3C4D", 100}, "other", entries), &entries[0]);
}

TEST_F(History, ABusyHistoryDelaysRecordsKeepsTheirOrderAndLosesNone) {
    HistoryRecorder recorder(0.01, 0.01);
    std::atomic<int> delayed{0};
    std::atomic<int> done{0};
    std::string why;
    const auto record = [&](const std::string& text) {
        recorder.record(
            "copy", folder_.path(), {}, [&] { ++delayed; },
            [&](const std::optional<std::string>& lost) {
                why = lost.value_or("");
                ++done;
            },
            [text](HistoryStore& history) {
                return history.update("e", [&](const HistoryEntry* present) {
                    HistoryEntry entry;
                    entry.cardName = (present ? present->cardName : "") + text;
                    return HistoryStore::Change{entry, std::nullopt};
                });
            });
    };
    {
        const auto held = FileLock::lock(Locks::history(folder_.path()), 5);
        ASSERT_TRUE(held);
        // Who is asked to stop waits no longer.
        EXPECT_THROW(HistoryStore(folder_.path(), 600).load([] { return true; }), Cancelled);
        record("1");
        record("2");
        EXPECT_FALSE(recorder.drain(0.05));
        EXPECT_EQ(recorder.waiting(), 2U);
    }
    record("3");
    EXPECT_TRUE(recorder.drain(20));
    EXPECT_EQ(done, 3);
    EXPECT_GE(delayed, 2);
    EXPECT_EQ(store().load().front().cardName, "123");
    std::filesystem::remove(folder_.path() + "/history.json");
    std::filesystem::create_directory(folder_.path() + "/history.json");
    record("4");
    EXPECT_NE(why.find("history.json"), std::string::npos) << why;
}

} // namespace
} // namespace velmora
