#include "base/Errors.h"
#include "base/FileTimes.h"
#include "base/Timestamp.h"

#include <cmath>
#include <limits>

namespace velmora {
namespace {

constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t smallest = std::numeric_limits<std::int64_t>::min();

TEST(Timestamp, KeepsNanoseconds) {
    EXPECT_DOUBLE_EQ(secondsBetween({1'700'000'000, 999'999'999}, {1'700'000'001, 0}), 1e-9);
    EXPECT_LT((Timestamp{-1, 999'999'999}), (Timestamp{0, 0}));
}

TEST(TimeText, WritesAndReadsEveryMomentThatAFileSystemCanHold) {
    const std::vector<std::pair<std::int64_t, const char*>> cases{
        {0, "1970-01-01T00:00:00Z"},
        {-1, "1969-12-31T23:59:59Z"},
        {951'782'400, "2000-02-29T00:00:00Z"},
        {4'107'542'400, "2100-03-01T00:00:00Z"}, // 2100 is no leap year
        {1'773'477'005, "2026-03-14T08:30:05Z"},
        {-62'135'596'800, "0001-01-01T00:00:00Z"},
        {-62'167'219'201, "-0001-12-31T23:59:59Z"},
        {253'402'300'800, "10000-01-01T00:00:00Z"},
    };
    for (const auto& [seconds, text] : cases) {
        EXPECT_EQ(TimeText::iso8601({seconds, 0}), text);
        EXPECT_EQ(TimeText::parseIso8601(text), (Timestamp{seconds, 0})) << text;
    }
    for (const std::int64_t seconds : {largest, smallest, largest / 3, smallest / 7}) {
        const std::string text = TimeText::iso8601({seconds, 0});
        EXPECT_EQ(TimeText::parseIso8601(text), (Timestamp{seconds, 0})) << text;
    }
    EXPECT_FALSE(TimeText::utc({largest, 0}, "%Y").empty());
    EXPECT_FALSE(TimeText::local({smallest, 0}, "%Y").empty());
}

TEST(TimeText, ReadsTheFormsThatOthersWrite) {
    const Timestamp wanted{1'773'477'005, 0};
    for (const char* text :
         {"2026-03-14T08:30:05Z", "2026-03-14T08:30:05", "2026-03-14T09:30:05+01:00", "2026-03-14T09:30:05+0100",
          "2026-03-14T09:30:05+01", "2026-03-14 08:30:05z", "2026-03-14T02:00:05-06:30", "2026-03-14T08:30:05.000000Z"})
        EXPECT_EQ(TimeText::parseIso8601(text), wanted) << text;
    EXPECT_EQ(TimeText::parseIso8601("2026-03-14T08:30:05.25Z")->nanoseconds, 250'000'000);
    EXPECT_EQ(TimeText::parseIso8601("2026-03-14T08:30:05,1234567899Z")->nanoseconds, 123'456'789);
    for (const char* text :
         {"", "2026", "2026-03-14", "2026-13-01T00:00:00Z", "2026-02-29T00:00:00Z", "2026-00-10T00:00:00Z",
          "2026-03-14T24:00:00Z", "2026-03-14T08:60:05Z", "2026-03-14T08:30:05+", "2026-03-14T08:30:05+1",
          "2026-03-14T08:30:05.Z", "2026-03-14T08:30:05Zx", "2026-3-14T08:30:05Z", "+2026-03-14T08:30:05Z",
          "999999999999-01-01T00:00:00Z", "2026-03-14T08:30:05+99:00", " 2026-03-14T08:30:05Z"})
        EXPECT_FALSE(TimeText::parseIso8601(text)) << text;
}

TEST(TimeText, UsesTheTimeZoneOfTheComputerOnlyWhereAsked) {
    const char* old = std::getenv("TZ");
    const std::string saved = old ? old : "";
    setenv("TZ", "XYZ-05:45", 1);
    tzset();
    EXPECT_EQ(TimeText::iso8601Local({1'773'477'005, 0}), "2026-03-14T14:15:05+05:45");
    EXPECT_EQ(TimeText::local({1'773'477'005, 0}, "%Y-%m-%d %H:%M"), "2026-03-14 14:15");
    setenv("TZ", "ABC03:30", 1);
    tzset();
    EXPECT_EQ(TimeText::iso8601Local({1'773'477'005, 0}), "2026-03-14T05:00:05-03:30");
    EXPECT_EQ(TimeText::utc({1'773'477'005, 0}, "%Y%m%dT%H%M%SZ"), "20260314T083005Z");
    old ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
}

TEST(FileTimes, CountsTicksFromTheYearOneAndBack) {
    EXPECT_EQ(FileTimes::ticks({0, 0}), 621'355'968'000'000'000);
    EXPECT_EQ(FileTimes::ticks({-62'135'596'800, 0}), 0);
    EXPECT_EQ(FileTimes::ticks({0, 150}), FileTimes::epochTicks + 2); // to the nearest
    EXPECT_EQ(FileTimes::ticksTruncated({0, 199}), FileTimes::epochTicks + 1);
    EXPECT_EQ(FileTimes::ticks({-1, 999'999'960}), FileTimes::epochTicks);
    for (const Timestamp t : {Timestamp{1'700'000'000, 123'456'700}, Timestamp{-1, 100}, Timestamp{-99'999'999'999, 0}})
        EXPECT_EQ(FileTimes::date(FileTimes::ticks(t)), t);
    EXPECT_EQ(FileTimes::ticks({largest, 0}), largest); // beyond the range: the nearest end
    EXPECT_EQ(FileTimes::ticks({smallest, 999'999'999}), smallest);
}

TEST(FileTimes, ComparesExactlyAndAcrossTimeZonesOfCards) {
    struct Case {
        double seconds; // the second time, from the first
        bool same, sameLocal, close, closeLocal;
    };
    const Timestamp base{1'700'000'000, 500'000'000};
    for (const Case& c :
         {Case{0, true, true, true, true}, Case{0.1, false, false, true, true}, Case{2, false, false, true, true},
          Case{2.1, false, false, false, false}, Case{3600, false, true, false, true},
          Case{3601, false, false, false, true}, Case{3598, false, false, false, true},
          Case{3603, false, false, false, false}, Case{5400, false, false, false, true},
          Case{5.5 * 3600 - 2, false, false, false, true}, Case{900, false, false, false, false},
          Case{14 * 3600, false, true, false, true}, Case{14 * 3600 + 1, false, false, false, true},
          Case{15 * 3600, false, false, false, true}, Case{26 * 3600 + 2, false, false, false, true},
          Case{26.5 * 3600, false, false, false, false}})
        for (const double sign : {1.0, -1.0}) {
            const Timestamp other = FileTimes::date(FileTimes::ticks(base) + std::llround(sign * c.seconds * 1e7));
            EXPECT_EQ(FileTimes::same(base, other, false), c.same) << sign * c.seconds;
            EXPECT_EQ(FileTimes::same(base, other, true), c.sameLocal) << sign * c.seconds;
            EXPECT_EQ(FileTimes::close(base, other, false), c.close) << sign * c.seconds;
            EXPECT_EQ(FileTimes::close(base, other, true), c.closeLocal) << sign * c.seconds;
        }
    EXPECT_FALSE(FileTimes::same(largest, smallest, true)); // no overflow on times that nobody believes
    EXPECT_FALSE(FileTimes::close({largest, 0}, {smallest, 0}, true));
    for (const auto& [type, local] : std::vector<std::pair<const char*, bool>>{
             {"msdos", true}, {"MSDOS", true}, {"fat", true}, {"FAT32", true}, {"exfat", true}, {"ext4", false}})
        EXPECT_EQ(FileTimes::storesLocalTime(type), local) << type;
}

TEST(Errors, NameTheCallThePathAndTheCode) {
    EXPECT_STREQ(IOError("open", "/a b", ENOENT).what(), "open /a b: No such file or directory (errno 2)");
    EXPECT_EQ(name(PreflightCode::repairConflict), "repairConflict"); // the last of the list
    EXPECT_EQ(name(PreflightCode::noReadAccess), "noReadAccess");
    EXPECT_EQ(name(PreflightCode::appendBusy), "appendBusy");
}

} // namespace
} // namespace velmora
