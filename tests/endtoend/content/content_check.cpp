// content_check FOLDER FILE…: makes a proxy of each file in FOLDER, with the check of its content, and prints what came
// of it: one JSON object a line.

#include "base/JsonFields.h"
#include "proxies/CheckedRender.h"
#include "proxies/ClipProbe.h"
#include "proxies/ToolSearch.h"

#include <cstdio>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

int main(int count, char** words) {
    using namespace velmora;
    const ExternalTools tools = ToolSearch::resolved({});
    ProxySettings settings;
    settings.height = 180;
    settings.burnFilename = settings.burnTimecode = settings.skipLighterSources = false;
    const ClipProbe probe(tools, {});
    ProxyRenderer renderer(settings, probe, [](std::string_view) {});
    for (int i = 2; i < count; ++i) {
        const std::string path = words[i];
        nlohmann::json answer;
        try {
            const Clip clip{path.substr(path.rfind('/') + 1), path, ClipFormat::video, {path}, 0, false};
            const ClipInfo info =
                probe.probe({clip.name, clip.name, clip.format, {}, 0, false}, path.substr(0, path.rfind('/')));
            answer = renderChecked(renderer, {clip, path, info, LutUse::off(""), fmt::format("{}/{}.mov", words[1], i)},
                                   path, tools);
        } catch (const std::exception& error) {
            answer = {{"state", "failed"}, {"message", error.what()}};
        }
        answer["path"] = path;
        std::printf("%s\n", Json::compact(answer).c_str());
        std::fflush(stdout);
    }
    return 0;
}
