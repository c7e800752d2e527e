#include "cli/ToolsInUse.h"

#include "proxies/ToolSearch.h"

#include <array>
#include <utility>

namespace velmora {

namespace {

using Member = std::optional<std::string> ExternalTools::*;

constexpr std::array<std::pair<std::string_view, Member>, 5> members{
    {{"tools.ffmpeg", &ExternalTools::ffmpeg},
     {"tools.ffprobe", &ExternalTools::ffprobe},
     {"tools.redline", &ExternalTools::redline},
     {"tools.artCmd", &ExternalTools::artCmd},
     {"tools.brawDecoder", &ExternalTools::brawDecoder}}};

Member memberOf(std::string_view key) {
    for (const auto& [name, member] : members)
        if (name == key)
            return member;
    return nullptr;
}

} // namespace

ToolsInUse::ToolsInUse(const ExternalTools& configured)
    : configured_(configured), used_(ToolSearch::resolved(configured)) {}

std::optional<std::string> ToolsInUse::path(std::string_view key) const {
    const Member member = memberOf(key);
    return member ? used_.*member : std::nullopt;
}

std::optional<std::string> ToolsInUse::describe(std::string_view key) const {
    const std::optional<std::string> used = path(key);
    const bool tellsVersion = key == "tools.ffmpeg" || key == "tools.ffprobe"; // the makers' tools have other words
    const auto version = used && tellsVersion ? ToolSearch::version(*used) : std::nullopt;
    return version ? version : used;
}

std::string ToolsInUse::remark(std::string_view key) const {
    const Member member = memberOf(key);
    if (!member)
        return {};
    const std::optional<std::string> used = describe(key);
    const bool isLost = configured_.*member && configured_.*member != used_.*member;
    return std::string("(") + (isLost ? "cannot be run; " : "") + (used ? "used: " + *used : "not found") + ")";
}

} // namespace velmora
