#pragma once

#include "base/Errors.h"
#include "records/ProgressSnapshot.h"
#include "records/ProxySettings.h"

#include <map>
#include <optional>
#include <string>

namespace velmora {

struct OffloadReport;

// How fast things ran on this computer, for the estimate of the next job. The last job counts, not an average: the
// next card most often goes through the same reader onto the same disks.
struct RateMemory {
    std::optional<double> copyRate;     // bytes a second
    std::optional<double> verifyRate;   // bytes a second, of a plain read-back
    std::map<std::string, double> post; // seconds of post stage for one second of footage, by postKey

    // What a planned job is to do.
    struct Planned {
        double bytes = 0;
        double footageSeconds = 0;
        bool readBack = true; // a read-back of its own, not one during the render
        bool analyze = true;
        std::optional<ProxyCodec> proxy; // none: no proxies
    };

    // Called at the end of a job. Counts only the bytes that were read according to `moved`. Few bytes teach nothing,
    // since the fixed costs of a run would pass for a slow disk. `stage2` is the length of its post stage in seconds,
    // net of pauses, `done` whether that ended. A repair teaches nothing, nor does a run with failed files: it moved
    // less than its report counts.
    void learn(const OffloadReport& report, const ProgressSnapshot& moved, bool analyze,
               std::optional<ProxyCodec> proxy, std::optional<double> stage2, bool cancelled, bool done);
    // Seconds; none while a rate that the job depends on is not known yet.
    std::optional<double> estimate(const Planned& planned) const;

    static std::string postKey(bool analyze, std::optional<ProxyCodec> proxy);
    static double clipSeconds(const OffloadReport& report); // footage, without the camera's own proxies
    // " ~12:30", with " incl. proxies": what stands behind the start button.
    static std::string startText(double seconds, bool proxies);

    // `rates.json` in the application-support folder, one JSON object: "copyRate" and "verifyRate" (numbers, left out
    // when not known) and "post" (object of numbers). Replaced atomically by `save`; a crash leaves the old file or the
    // new one. What is missing, unreadable or no positive number counts as not known. When saving fails, the log
    // says so and nothing else happens: the file only makes estimates better.
    static std::string pathIn(const std::string& supportFolder);
    static RateMemory load(const std::string& path);
    void save(const std::string& path, const Log& log) const;

    bool operator==(const RateMemory&) const = default;
};

} // namespace velmora
