#pragma once

#include "proxies/ProxyBatch.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace velmora {

// What `velmora proxies` shows.
namespace ProxyWords {

// "Proxies 3/12  41 %  2.4× real time  1:20 left  A001C003 63 %".
std::string line(const ProxyBatch::Progress& progress);
nlohmann::json status(const ProxyBatch::Progress& progress);

// How many of each kind, then every clip with a reason.
std::vector<std::string> summary(const std::vector<ProxyBatch::Item>& items, const std::string& out, bool cancelled);
nlohmann::json result(const std::vector<ProxyBatch::Item>& items, const std::string& out, int exitStatus);

} // namespace ProxyWords

} // namespace velmora
