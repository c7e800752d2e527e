#include "disks/SpacePlanner.h"

namespace velmora {
namespace {

constexpr std::int64_t GB = 1'000'000'000;

// "/a/…" lies on disk "a", named "A".
SpacePlanner::Disks disksOf(std::map<std::string, IO::Capacity> capacity) {
    const auto key = [](const std::string& path) { return path.substr(1, 1); };
    return {key, [key](const std::string& path) { return "disk " + key(path); },
            [key, capacity](const std::string& path) -> std::optional<IO::Capacity> {
                const auto found = capacity.find(key(path));
                return found == capacity.end() ? std::nullopt : std::optional(found->second);
            }};
}

SpacePlanner::Verdict verdictOn(const std::vector<std::string>& cards, const SpaceExtra& extra, std::int64_t card,
                                const std::map<std::string, IO::Capacity>& capacity) {
    const SpacePlanner::Disks disks = disksOf(capacity);
    return SpacePlanner::checkPlaces(SpacePlanner::places(extra, card, SpacePlanner::targets(cards, disks), disks),
                                     disks);
}

TEST(SpacePlanner, GivesEveryPlaceItsShare) {
    struct Case {
        std::string what;
        SpaceExtra extra;
        std::vector<SpacePlace> expected;
    };
    const std::vector<Case> cases{
        {"card alone", {}, {{"/a/c", "disk a", {10, 0, 0}}, {"/b/c", "disk b", {10, 0, 0}}}},
        {"proxies stay on the first",
         {5, 1, false, {}},
         {{"/a/c", "disk a", {10, 5, 1}}, {"/b/c", "disk b", {10, 0, 0}}}},
        {"proxies go everywhere", {5, 1, true, {}}, {{"/a/c", "disk a", {10, 5, 1}}, {"/b/c", "disk b", {10, 5, 0}}}},
        {"a folder of their own",
         {5, 0, false, "/p/x"},
         {{"/a/c", "disk a", {10, 5, 0}}, {"/b/c", "disk b", {10, 0, 0}}, {"/p/x", "disk p", {0, 5, 0}}}},
        {"no proxies need no folder",
         {0, 1, true, "/p/x"},
         {{"/a/c", "disk a", {10, 0, 1}}, {"/b/c", "disk b", {10, 0, 0}}}},
    };
    const SpacePlanner::Disks disks = disksOf({});
    for (const Case& c : cases)
        EXPECT_EQ(SpacePlanner::places(c.extra, 10, SpacePlanner::targets({"/a/c", "/b/c"}, disks), disks), c.expected)
            << c.what;
}

TEST(SpacePlanner, NamesWhatIsShortAndWhatGetsTight) {
    struct Case {
        std::string what;
        std::int64_t free;
        std::string expected; // severity and text; empty: no problem
        std::int64_t total = 1000 * GB;
    };
    const std::vector<Case> cases{
        {"one byte short", 110 * GB - 1,
         "blocking Not enough space on disk a: needs 110.00 GB (100.00 GB cards, proxy ~9.00 GB, reports and overhead "
         "1.00 GB), free "
         "110.00 GB"},
        {"to the last byte", 110 * GB,
         "warning Only 0 B will be left on disk a after the offload — under 5% headroom, the proxy estimate is "
         "approximate."},
        {"one byte under five per cent", 160 * GB - 1,
         "warning Only 50.00 GB will be left on disk a after the offload — under 5% headroom, the proxy estimate is "
         "approximate."},
        {"five per cent", 160 * GB, ""},
        {"a fraction of a byte under five per cent", 160 * GB,
         "warning Only 50.00 GB will be left on disk a after the offload — under 5% headroom, the proxy estimate is "
         "approximate.",
         1000 * GB + 1},
    };
    for (const Case& c : cases) {
        const auto verdict = verdictOn({"/a/c"}, {9 * GB, GB, false, {}}, 100 * GB, {{"a", {c.total, c.free}}});
        std::string found;
        for (const SpaceProblem& problem : verdict.problems)
            found += (problem.severity == SpaceSeverity::blocking ? "blocking " : "warning ") + problem.text;
        EXPECT_EQ(found, c.expected) << c.what;
    }
}

TEST(SpacePlanner, AddsUpWhatSharesADisk) {
    const SpaceExtra extra{10, 0, true, "/b/proxies"};
    const auto verdict =
        verdictOn({"/b/1", "/a/1", "/b/2", "/u/1"}, extra, 100, {{"a", {10000, 109}}, {"b", {10000, 229}}});
    ASSERT_EQ(verdict.lines.size(), 2U) << "nothing is said about a disk that does not know its size";
    EXPECT_EQ(verdict.lines[0], (SpaceLine{"disk b", {200, 30, 0}, 229}));
    EXPECT_EQ(verdict.lines[1], (SpaceLine{"disk a", {100, 10, 0}, 109}));
    ASSERT_EQ(verdict.problems.size(), 2U);
    EXPECT_EQ(verdict.problems[0].label, "disk b") << "in the order of the places";
    const auto huge = verdictOn({"/a/1", "/a/2"}, {INT64_MAX, 0, true, {}}, INT64_MAX, {{"a", {10000, 9000}}});
    ASSERT_EQ(huge.problems.size(), 1U) << "sums too large to count are shortages, not small numbers";
    EXPECT_EQ(huge.problems[0].severity, SpaceSeverity::blocking);
}

TEST(SpacePlanner, LooksAtTheDiskBelowAPathThatIsNotThereYet) {
    const test::TempFolder folder;
    const std::string future = folder / "2026-11-22/A001";
    EXPECT_EQ(SpacePlanner::volumeKey(future), SpacePlanner::volumeKey(folder.path()));
    EXPECT_NE(SpacePlanner::volumeKey(future), SpacePlanner::volumeKey("/proc/self"));
    const auto capacity = SpacePlanner::capacityOf(future);
    ASSERT_TRUE(capacity);
    EXPECT_EQ(capacity->total, IO::capacity(folder.path()).total);
    EXPECT_FALSE(SpacePlanner::capacityOf("/proc/self/fd")) << "a file system without a size";
    EXPECT_FALSE(SpacePlanner::labelOf(future).empty());
}

} // namespace
} // namespace velmora
