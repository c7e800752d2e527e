#include "verify/VerifyReport.h"

namespace velmora {
namespace {

using Paths = std::vector<std::string>;

VerifyResult good(std::int64_t files = 3) {
    VerifyResult result;
    result.cardPath = "/mnt/raid/2026-03-14/A001";
    result.basis = "ascmhl";
    result.generations = 1;
    result.hashAlgorithms = {"xxh64", "md5"};
    result.totalFiles = result.ok = result.checked = files;
    result.bytesRead = 250'000'000;
    return result;
}

TEST(VerifyReport, WordsOfEachOutcome) {
    using Tone = VerifyReport::Tone;
    const std::string details = " — the files are named below.";
    const struct {
        std::function<void(VerifyResult&)> change;
        Tone tone;
        std::string begin;
        Paths warnings;
    } cases[] = {
        {[](auto&) {}, Tone::ok, "Verified: all 3 files match (ASC MHL, 1 generation, xxHash64, MD5)", {}},
        {[](auto& r) { r = good(1); }, Tone::ok, "Verified: the file matches (ASC MHL", {}},
        {[](auto& r) { r.extra = {"x"}; }, Tone::ok, "Verified: all 3", {"1 file extra (not in the MHL)."}},
        {[](auto& r) {
             r.extra = {"x", "y"};
             r.basis = "hashList";
         },
         Tone::ok,
         "Verified: all 3 files match (checksum list, xxHash64, MD5)",
         {"2 files extra (not in the checksum list)."}},
        {[](auto& r) { r.nestedHistories = 1; },
         Tone::ok,
         "Verified: all 3 files match (ASC MHL, 1 generation, 1 nested history, xxHash64, MD5)",
         {}},
        {[](auto& r) {
             r.failedSuperseded = {"x"};
             r.chainProblems = {"broken"};
         },
         Tone::warning,
         "The records of the backup are damaged (1 problem) — what they still name matches: 3 files (ASC MHL",
         {"1 file has the record \"failed during the copy\" in the newest generation — verified against an older valid "
          "generation.",
          "broken"}},
        {[](auto& r) { r.changed = {"x"}; }, Tone::error, "Mismatch: 1 file, missing 0, unreadable 0" + details, {}},
        {[](auto& r) {
             r.changed = {"x", "y"};
             r.missing = {"z"};
             r.unreadable = {{"u", "EIO"}};
         },
         Tone::error,
         "Mismatch: 2 files, missing 1, unreadable 1" + details,
         {}},
        {[](auto& r) { r.failedAtCopy = {"x", "y"}; },
         Tone::error,
         "2 files already failed during the copy and the record has no valid checksum" + details,
         {"2 files already failed during the copy."}},
        {[](auto& r) { r.unfinished = true; }, Tone::warning, "The backup is not finished: ", {}},
        {[](auto& r) { r.unfinished = r.copyBrokeOff = true; },
         Tone::warning,
         "The backup is not finished: the copy of its newest generation was interrupted. Do not format the card yet",
         {}},
        {[](auto& r) {
             r.unfinished = true;
             r.missing = {"x"};
         },
         Tone::error,
         "Mismatch: 0 files, missing 1",
         {}},
        {[](auto& r) {
             r.folderGone = true;
             r.changed = {"x"};
         },
         Tone::error,
         "Cannot verify: ",
         {}},
        {[](auto& r) { r.cancelled = true; }, Tone::warning, "Verification cancelled after 3 files", {}},
    };
    for (const auto& c : cases) {
        VerifyResult result = good();
        c.change(result);
        const auto summary = VerifyReport::summary(result);
        EXPECT_TRUE(summary.text.starts_with(c.begin)) << summary.text << "\n" << c.begin;
        EXPECT_EQ(summary.tone, c.tone) << summary.text;
        EXPECT_EQ(VerifyReport::warnings(result), c.warnings) << summary.text;
    }
}

TEST(VerifyReport, TheCommandLineTellsRateAndProblems) {
    VerifyResult result = good();
    EXPECT_EQ(VerifyReport::cliSummary(result, 2), "Verified 3 files (250.0 MB) in 2.0 s, 125 MB/s");
    EXPECT_EQ(VerifyReport::cliSummary(result, 0), "Verified 3 files (250.0 MB) in 0.0 s, - MB/s");
    result.changed = {"a"};
    result.missing = {"b", "c"};
    result.extra = {"d"};
    EXPECT_TRUE(VerifyReport::cliSummary(result, 2).ends_with(
        "125 MB/s — PROBLEMS FOUND: mismatch 1, missing 2, unreadable 0, extra 1, failed during the copy 0"));
    result = good();
    result.unfinished = true;
    EXPECT_NE(VerifyReport::cliSummary(result, 2).find(" — BACKUP UNFINISHED: The backup is not finished: "),
              std::string::npos);
}

} // namespace
} // namespace velmora
