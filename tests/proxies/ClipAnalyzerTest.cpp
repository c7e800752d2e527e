#include "proxies/ClipAnalyzer.h"

namespace velmora {
namespace {

// A folder with clips and an ffprobe that is a shell script.
struct Card {
    test::TempFolder folder;
    std::vector<Clip> clips;
    ExternalTools tools;
    LutCatalog catalog;

    Card(int count, const std::string& script) {
        test::FileTree::write(folder / "ffprobe", "#!/bin/sh\nfor path; do :; done\n" + script);
        std::filesystem::permissions(folder / "ffprobe", std::filesystem::perms::owner_all);
        tools.ffprobe = folder / "ffprobe";
        for (int n = 0; n < count; ++n)
            clips.push_back({"C" + std::to_string(n), std::to_string(n) + ".mov", ClipFormat::video, {}, 1, false});
    }
    void analyze(const std::function<void(AnalyzedClip&&)>& take, unsigned atOnce = 0, double timeout = 30,
                 const IsCancelled& isCancelled = {}) {
        const ClipProbe probe(tools, {}, timeout);
        ClipAnalyzer::Wish wish;
        wish.atOnce = atOnce;
        ClipAnalyzer(probe, catalog).analyze(clips, folder.path(), wish, take, isCancelled);
    }
};

// Each child stands in the folder while it runs, and takes the longer the earlier its clip is.
constexpr const char* slow = R"(cd "${0%/*}"; mkdir -p running; : > running/$$; ls running | wc -l >> counts
n=${path##*/}; n=${n%.mov}; sleep 0.$((9 - n)); rm running/$$
echo "{\"format\":{\"duration\":\"$n\"}}")";

TEST(ClipAnalyzer, ReadsSeveralClipsAtOnceAndGivesThemInOrder) {
    Card card(8, slow);
    std::vector<double> durations;
    card.analyze([&](AnalyzedClip&& clip) { durations.push_back(*clip.entry.info->duration); }, 1000);
    EXPECT_EQ(durations, (std::vector<double>{0, 1, 2, 3, 4, 5, 6, 7}));
    std::istringstream counts(test::FileTree::read(card.folder / "counts"));
    unsigned most = 0;
    for (unsigned count = 0; counts >> count;)
        most = std::max(most, count);
    EXPECT_GT(most, 1U);
    EXPECT_LE(most, 2 * std::thread::hardware_concurrency());
}

TEST(ClipAnalyzer, SaysOfAClipWhyItCannotBeRead) {
    struct Case {
        const char *script, *why;
    };
    for (const Case& c : {Case{"sleep 60", "no response within 1 s"}, Case{"echo oops >&2; exit 3", "oops"},
                          Case{"exec yes 0123456789", "more output than expected"}, Case{"echo 7", "unreadable output"},
                          Case{"echo '{'", "of the JSON"}}) {
        Card card(1, c.script);
        std::string error;
        card.analyze([&](AnalyzedClip&& clip) { error = clip.entry.probeError.value_or(""); }, 0, 1);
        EXPECT_THAT(error, testing::HasSubstr(c.why));
    }
    Card card(2, "");
    card.tools = {};
    card.clips[1].format = ClipFormat::r3d;
    std::vector<std::string> errors;
    card.analyze([&](AnalyzedClip&& clip) { errors.push_back(clip.entry.probeError.value_or("")); });
    EXPECT_EQ(errors, (std::vector<std::string>{"ffprobe not found", "RED R3D: no decoder available"}));
}

TEST(ClipAnalyzer, StopsWhenToldTo) {
    Card card(50, "sleep 60");
    std::atomic<int> asked{0};
    EXPECT_THROW(card.analyze([](AnalyzedClip&&) {}, 0, 30, [&] { return ++asked > 5; }), Cancelled);
    Card quick(50, "echo '{}'");
    int taken = 0;
    EXPECT_THROW(quick.analyze([&](AnalyzedClip&&) {
        if (++taken == 3)
            throw std::runtime_error("full");
    }),
                 std::runtime_error);
    EXPECT_EQ(taken, 3);
}

} // namespace
} // namespace velmora
