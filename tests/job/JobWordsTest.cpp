#include "job/JobWords.h"

#include "records/OffloadReport.h"

namespace velmora {
namespace {

using Phase = JobStatus::Phase;

JobStatus at(Phase phase) {
    JobStatus status;
    status.phase = phase;
    return status;
}

JobStatus promising(Phase phase, bool eject, bool format) {
    JobStatus status = at(phase);
    status.safeToEject = eject;
    status.safeToFormat = format;
    return status;
}

TEST(JobWords, MakesTwoPromisesAndNoneTooEarly) {
    struct Case {
        JobStatus status;
        std::int64_t warnings;
        bool confirmed;
        std::string eject;
        std::string format;
    };
    JobStatus withProxies = promising(Phase::proxies, true, false);
    withProxies.verifyInProxy = true;
    const std::vector<Case> cases{
        {at(Phase::waiting), 0, false, "Do not eject yet/waiting", "Do not format yet/waiting"},
        {at(Phase::copying), 0, false, "Do not eject yet/active", "Do not format yet/waiting"},
        {at(Phase::verifying), 0, false, "Do not eject yet/active", "Verifying/active"},
        {promising(Phase::analyzing, true, false), 0, false, "Safe to eject/ok", "Do not format yet/waiting"},
        {withProxies, 0, false, "Safe to eject/ok", "Verifying/active"},
        {promising(Phase::finishingVerification, true, false), 0, false, "Safe to eject/ok", "Verifying/active"},
        {promising(Phase::done, true, true), 0, false, "Safe to eject/ok", "Safe to format/ok"},
        {promising(Phase::done, true, true), 2, false, "Safe to eject/ok",
         "Safe to format after checking defects/warning"},
        {promising(Phase::done, true, true), 2, true, "Safe to eject/ok", "Safe to format/ok"},
        {promising(Phase::done, true, false), 2, false, "Safe to eject/ok", "Do not format/error"},
        {at(Phase::done), 0, false, "Do not eject/error", "Do not format/error"},
        {at(Phase::failed), 0, false, "Do not eject/error", "Do not format/error"},
        {promising(Phase::cancelled, true, false), 0, false, "Safe to eject/ok", "Do not format/error"},
        {promising(Phase::cancelled, true, true), 0, false, "Safe to eject/ok", "Safe to format/ok"},
    };
    for (const Case& c : cases) {
        const auto chips = JobWords::chips(c.status, c.confirmed, c.warnings);
        const auto text = [](const CardChip& chip) { return chip.text + "/" + std::string(name(chip.tone)); };
        EXPECT_EQ(text(chips[0]), c.eject) << name(c.status.phase);
        EXPECT_EQ(text(chips[1]), c.format) << name(c.status.phase);
    }
}

TEST(JobWords, ShowsHowTheJobStands) {
    JobStatus clean = promising(Phase::done, true, true);
    clean.copySucceeded = true;
    JobStatus warned = clean;
    warned.addWarning("tight");
    warned.addWarning("late");
    warned.addWarning("tight");
    EXPECT_EQ(warned.warning(), "tight\nlate") << "each once";
    JobStatus broken = at(Phase::done);
    broken.copySucceeded = false;
    JobStatus pausing = at(Phase::copying);
    pausing.paused = true;
    pausing.pauseStep = "A001.mov";
    JobStatus held = pausing;
    held.pauseHeld = true;
    JobStatus heldLater = held;
    heldLater.phase = Phase::proxies;
    struct Case {
        JobStatus status;
        CardTone tone;
        std::string text;
        std::string pause;
    };
    const std::vector<Case> cases{
        {at(Phase::waiting), CardTone::waiting, "Waiting", ""},
        {at(Phase::copying), CardTone::active, "Copying", ""},
        {at(Phase::finishingVerification), CardTone::active, "Finishing verification", ""},
        {clean, CardTone::ok, "Done", ""},
        {warned, CardTone::warning, "Done", ""},
        {promising(Phase::done, true, false), CardTone::warning, "Done", ""},
        {broken, CardTone::error, "Error", ""},
        {at(Phase::failed), CardTone::error, "Failed", ""},
        {at(Phase::cancelled), CardTone::warning, "Cancelled", ""},
        {pausing, CardTone::active, "Pausing", "Pausing (finishing A001.mov)"},
        {held, CardTone::active, "Paused", "Paused — Resume continues with the next file."},
        {heldLater, CardTone::active, "Paused", "Paused — Resume continues with the next clip."},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(JobWords::tone(c.status), c.tone) << c.text;
        EXPECT_EQ(JobWords::statusText(c.status), c.text);
        EXPECT_EQ(JobWords::pauseText(c.status).value_or(""), c.pause);
        EXPECT_EQ(JobWords::isRunning(c.status), c.tone == CardTone::active) << c.text;
    }
}

TEST(JobWords, SaysHowLongAndHowMuch) {
    using P = std::pair<double, const char*>;
    for (const auto& [seconds, text] : {P{0, "0:00"}, P{59.4, "0:59"}, P{59.6, "1:00"}, P{3599, "59:59"},
                                        P{3600, "1:00:00"}, P{37230, "10:20:30"}, P{-5, "0:00"}, P{1e300, "99:59:59"}})
        EXPECT_EQ(JobWords::etaText(seconds), text);

    OffloadReport report;
    report.totalBytes = 500'000'000;
    report.started = {1000, 0};
    report.copyFinished = {1010, 0};
    report.copyPausedSeconds = 5.0;
    EXPECT_EQ(JobWords::summaryText(report), "100 MB/s");
    const auto add = [&](ProxyStatus status, const char* note) {
        ClipEntry clip;
        clip.proxyStatus = status;
        clip.proxyNote = note;
        report.clips.push_back(clip);
    };
    add(ProxyStatus::done, "");
    EXPECT_EQ(JobWords::summaryText(report), "100 MB/s · 1 clip · 1 proxy");
    add(ProxyStatus::done, "");
    add(ProxyStatus::failed, "");
    add(ProxyStatus::unsupported, "");
    add(ProxyStatus::skipped, "camera proxy");
    add(ProxyStatus::skipped, "no proxy — the original is lighter (4 Mbit/s)");
    EXPECT_EQ(JobWords::summaryText(report), "100 MB/s · 6 clips · 2 proxies · 1 failed · 1 unsupported · 1 without "
                                             "proxy (lighter original)");
}

} // namespace
} // namespace velmora
