#include "proxies/ProxyOrigin.h"

#include "base/JsonFields.h"
#include "base/Text.h"
#include "proxies/MovFile.h"
#include "proxies/ToolProcess.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace velmora::ProxyOrigin {

std::string text(const Clip& clip, const ClipInfo& info) {
    return fmt::format("Proxy of {}, {} bytes, {}, {}", escapeForDisplay(clip.path), clip.bytes,
                       withValidUtf8(info.timecode.value_or("no timecode")),
                       info.recorded ? TimeText::iso8601(*info.recorded) : "no date");
}

std::optional<std::string> read(const std::string& ffprobe, const std::string& path, const IsCancelled& isCancelled) {
    constexpr double patience = 60; // seconds
    try {
        const auto document = Json::parse(ToolProcess::run(
            ffprobe, {"-v", "error", "-print_format", "json", "-show_entries", "format_tags=comment", "file:" + path},
            {}, patience, isCancelled));
        return document.at("format").at("tags").at("comment").get<std::string>();
    } catch (const ToolError&) {
        if (isCancelled && isCancelled())
            throw;
    } catch (const FormatError&) {
        // As good as none.
    } catch (const nlohmann::json::exception&) {
        // It has no comment.
    }
    return std::nullopt;
}

bool isOf(const std::string& ffprobe, const std::string& path, const Clip& clip, const ClipInfo& info,
          const IsCancelled& isCancelled) {
    return read(ffprobe, path, isCancelled) == text(clip, info) && !MovFile::problem(path);
}

} // namespace velmora::ProxyOrigin
