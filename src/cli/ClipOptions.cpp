#include "cli/ClipOptions.h"

#include "base/Text.h"
#include "cli/Command.h"
#include "cli/TypedPath.h"
#include "proxies/LutCatalog.h"
#include "verify/VerifyOptions.h"

#include <CLI/CLI.hpp>

namespace velmora {

void ClipOptions::declare(CLI::App& app) {
    constexpr const char* group = "Clips and proxies";
    auto* noClips = app.add_flag("--no-clips", noClips_, "Neither look at the clips nor make proxies");
    auto* proxy = app.add_option("--proxy", codec_,
                                 "Make proxies into _PROXY of the card folders: h264, hevc, proresProxy, proresLT, "
                                 "prores422 or prores422HQ; off: make none")
                      ->type_name("CODEC");
    const auto setting = [&](const char* option, const char* key, const char* type, const char* help) {
        return app
            .add_option_function<std::string>(
                option, [this, key](const std::string& text) { choice_.values.emplace_back(key, text); }, help)
            ->type_name(type);
    };
    auto* height = setting("--proxy-height", "height", "LINES", "Lines of the proxies");
    auto* folder = app.add_option("--proxy-folder", folder_, "A further folder for the proxies; it must be there")
                       ->type_name("DIR");
    auto* lut = app.add_option("--lut", choice_.lut, "auto, none, the id of a built-in LUT, or a path to a .cube")
                    ->type_name("LUT");
    auto* inProxy = app.add_flag("--no-verify-in-proxy", noVerifyInProxy_,
                                 "Read the copies back before the proxies are made, not while they are made");
    auto* primary = app.add_option("--primary", primary_,
                                   "The destination whose copy the proxies are made from, by its number (default: the "
                                   "setting verifyPrimary)")
                        ->type_name("N");
    noClips->excludes(proxy);
    for (CLI::Option* option : {noClips, proxy, height, folder, lut, inProxy, primary})
        option->group(group);
}

void ClipOptions::applyTo(JobConfig& config, AppSettings settings, std::size_t destinations) const {
    ProxyChoice choice = choice_;
    if (codec_) {
        settings.proxy.enabled = !equalIgnoringCase(*codec_, "off");
        if (settings.proxy.enabled)
            choice.values.emplace_back("codec", *codec_);
    }
    if (folder_)
        choice.values.emplace_back("extraFolder", TypedPath::absolute(*folder_));
    choice.applyTo(settings, LutCatalog::loadForUser());
    const bool typed = !choice_.values.empty() || folder_ || choice_.lut;
    if (typed && (!settings.proxy.enabled || noClips_))
        throw UsageError("No proxies are made — add --proxy CODEC, or leave the options for proxies out.");
    if (primary_)
        if (const auto problem = VerifyOptions::primaryProblem(*primary_, destinations))
            throw UsageError(*problem);
    config.proxy = settings.proxy;
    config.proxy.enabled = settings.proxy.enabled && !noClips_;
    config.analyzeClips = settings.analyzeClips && !noClips_;
    config.tools = settings.tools;
    config.verifyInProxy = settings.verifyInProxy && !noVerifyInProxy_;
    config.verifyPrimary = settings.verifyPrimary;
    config.primaryDestination = primary_;
}

} // namespace velmora
