#pragma once

#include "base/Timestamp.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

// What is known of a clip's picture and sound. Reading is tolerant: what is missing or unreadable stays empty.
struct ClipInfo {
    std::optional<std::string> codec;
    std::optional<std::int64_t> width;
    std::optional<std::int64_t> height;
    std::optional<std::string> frameRate; // of playback, "24000/1001" or "25": the rate of all frame arithmetic
    std::optional<double> duration;       // seconds
    std::optional<std::int64_t> frames;
    std::optional<std::string> timecode; // of the first frame, HH:MM:SS:FF
    std::int64_t audioChannels = 0;
    std::vector<std::int64_t> audioStreams;   // channels of each; not stored
    std::optional<std::int64_t> videoBitrate; // bits per second; not stored
    std::optional<std::string> colorMatrix;   // between RGB and YCbCr, as the file states it; not stored
    std::optional<std::string> reel;
    std::optional<std::string> camera;
    std::optional<std::string> logEncoding;
    std::optional<double> squeeze;
    std::optional<std::string> colorRange;
    std::optional<std::string> gamma;
    std::optional<std::string> gamut;
    std::optional<std::int64_t> colorScienceGen;
    std::optional<std::string> captureFrameRate; // of the sensor; for display only
    std::optional<Timestamp> recorded;

    // "25" or "23.976"; none when the rate does not parse.
    static std::optional<std::string> label(const std::optional<std::string>& rate);
    std::optional<std::string> fpsLabel() const { return label(frameRate); }
    bool captureDiffers() const;                      // both rates known and more than 0.001 apart
    std::optional<std::string> fpsSummary() const;    // with the capture rate where it differs
    std::string resolutionLabel() const;              // "3840×2160"
    std::optional<std::string> durationLabel() const; // "0:01:05"
    // A rate as this program writes rates: "24000/1001", "25" or "12.5". Above 1000 it counts thousandths of a frame,
    // as some makers' tools do. None for what is no rate.
    static std::optional<std::string> normalizeRate(const std::optional<std::string>& text);
    // Cameras with a run-down clock write dates that are worth nothing: none before 2000 or more than a day ahead.
    static std::optional<Timestamp> plausible(std::optional<Timestamp> date, Timestamp now);
    bool operator==(const ClipInfo&) const = default;
};

void to_json(nlohmann::json& j, const ClipInfo& value);
void from_json(const nlohmann::json& j, ClipInfo& value);

} // namespace velmora
