#pragma once

#include "records/ExternalTools.h"
#include "records/ProxySettings.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace velmora {

struct NamingSettings {
    bool suggestFromClips = true;
    bool operator==(const NamingSettings&) const = default;
};

struct OutputSettings {
    bool dayReport = true;
    bool clipListCsv = true;
    bool clipListAle = false;
    bool operator==(const OutputSettings&) const = default;
};

// The user's settings. How they are read and written is the settings store's.
struct AppSettings {
    std::vector<std::string> destRoots;
    bool verify = true;
    bool analyzeClips = true;
    ProxySettings proxy;
    ExternalTools tools;
    std::map<std::string, std::string> portNames;
    bool autoDestinations = true;
    std::vector<std::string> ignoredVolumes;
    NamingSettings naming;
    std::string hash = "xxh64";
    OutputSettings outputs;
    bool verifyInProxy = true;
    std::string verifyPrimary = "fastest";
    std::string appearance = "dark";
    bool oneJobAtATime = false;
    std::map<std::string, std::string> raw; // top-level keys as read, each value as JSON text
    std::set<std::string> unreadable;       // keys, or "section.key", whose value could not be read
    bool operator==(const AppSettings&) const = default;
};

} // namespace velmora
