#include "job/RateMemory.h"

#include "base/JsonShape.h"
#include "base/RelativePath.h"
#include "job/JobWords.h"
#include "platform/IO.h"
#include "records/OffloadReport.h"

#include <algorithm>
#include <cmath>

namespace velmora {

namespace {

constexpr std::int64_t largestFile = 65536;

constexpr double tellingBytes = 64 << 20;

void keepIfPositive(std::optional<double>& rate, double amount, double seconds) {
    if (amount > 0 && seconds > 0)
        rate = amount / seconds;
}

bool isRate(double value) { return std::isfinite(value) && value > 0; }

// A verification that rode on the render took as long as the render: it says nothing about reading back.
bool wasReadBack(const OffloadReport& report) {
    return report.verified && std::ranges::none_of(report.destinations, [](const auto& destination) {
               return destination.verifyMethod && *destination.verifyMethod != "read-back";
           });
}

} // namespace

void RateMemory::learn(const OffloadReport& report, const ProgressSnapshot& moved, bool analyze,
                       std::optional<ProxyCodec> proxy, std::optional<double> stage2, bool cancelled, bool done) {
    if (report.isRepair() || report.hasFailedFiles())
        return;
    // A run that only compares reads at the card's full speed, while a copy waits for its disks. So only a copy counts.
    const bool wrote = std::ranges::any_of(moved.writtenBytes, [](std::int64_t bytes) { return bytes > 0; });
    if (const auto read = static_cast<double>(moved.readBytes); wrote && read >= tellingBytes)
        keepIfPositive(copyRate, read, report.copySeconds());
    // The disks are read side by side: the one with the most to read is what takes the time.
    const auto most = std::ranges::max_element(moved.verifiedBytes);
    const double readBack = most == moved.verifiedBytes.end() ? 0 : static_cast<double>(*most);
    if (readBack >= tellingBytes && wasReadBack(report))
        keepIfPositive(verifyRate, readBack, report.verifySeconds());
    std::optional<double> secondsPerSecond;
    if (done && !cancelled)
        keepIfPositive(secondsPerSecond, stage2.value_or(0), clipSeconds(report));
    if (secondsPerSecond)
        post[postKey(analyze, proxy)] = *secondsPerSecond;
}

std::optional<double> RateMemory::estimate(const Planned& planned) const {
    if (!copyRate)
        return std::nullopt;
    double seconds = planned.bytes / *copyRate;
    if (planned.readBack) {
        if (!verifyRate)
            return std::nullopt;
        seconds += planned.bytes / *verifyRate;
    }
    if ((planned.analyze || planned.proxy) && planned.footageSeconds > 0) {
        const auto known = post.find(postKey(planned.analyze, planned.proxy));
        if (known == post.end())
            return std::nullopt;
        seconds += planned.footageSeconds * known->second;
    }
    return seconds;
}

std::string RateMemory::postKey(bool /*analyze*/, std::optional<ProxyCodec> proxy) {
    // A render includes the analysis and takes far longer, so only the render counts.
    return proxy ? std::string(name(*proxy)) : "analysis";
}

double RateMemory::clipSeconds(const OffloadReport& report) {
    double seconds = 0;
    for (const ClipEntry& entry : report.clips)
        if (!entry.clip.isCameraProxy && entry.info && entry.info->duration && isRate(*entry.info->duration))
            seconds += *entry.info->duration;
    return seconds;
}

std::string RateMemory::startText(double seconds, bool proxies) {
    return " ~" + JobWords::etaText(seconds) + (proxies ? " incl. proxies" : "");
}

std::string RateMemory::pathIn(const std::string& supportFolder) { return supportFolder + "/rates.json"; }

RateMemory RateMemory::load(const std::string& path) {
    RateMemory memory;
    try {
        const nlohmann::json json = Json::parse(IO::readFile(path, largestFile));
        const JsonFields fields(json, JsonFields::Reading::tolerant);
        const auto rate = [](std::optional<double> value) { return value && isRate(*value) ? value : std::nullopt; };
        memory.copyRate = rate(fields.optionalNumber("copyRate"));
        memory.verifyRate = rate(fields.optionalNumber("verifyRate"));
        if (const nlohmann::json* post = fields.find("post"); post != nullptr && post->is_object())
            for (const auto& [key, value] : post->items())
                if (value.is_number() && isRate(value.get<double>()))
                    memory.post[key] = value.get<double>();
    } catch (const IOError&) {     // no file yet
    } catch (const FormatError&) { // not ours to repair; the next job writes it anew
    }
    return memory;
}

void RateMemory::save(const std::string& path, const Log& log) const {
    nlohmann::json json;
    JsonShape::write(json, "copyRate", copyRate);
    JsonShape::write(json, "verifyRate", verifyRate);
    json["post"] = post;
    try {
        IO::mkdirs(std::string(RelativePath::folder(path)));
        IO::writeFileDurably(path, Json::pretty(json) + "\n");
    } catch (const IOError& e) {
        if (log)
            log(std::string("rates not saved: ") + e.what());
    }
}

} // namespace velmora
