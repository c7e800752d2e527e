#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

enum class ClipFormat { video, braw, r3d, arriraw, canonRaw, unknown };
std::string_view name(ClipFormat format) noexcept;
ClipFormat clipFormat(std::string_view name) noexcept; // `unknown` for anything else
std::string_view label(ClipFormat format) noexcept;    // for people

// One camera clip; it may be made of several files.
struct Clip {
    std::string name;
    std::string path; // the file, the first segment, or the folder of a frame sequence
    ClipFormat format = ClipFormat::unknown;
    std::vector<std::string> segments; // all files of the clip, ascending
    std::int64_t bytes = 0;
    bool isCameraProxy = false; // recorded by the camera beside the main clip
    bool operator==(const Clip&) const = default;
};

void to_json(nlohmann::json& j, const Clip& value);
void from_json(const nlohmann::json& j, Clip& value);

} // namespace velmora
