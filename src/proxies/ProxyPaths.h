#pragma once

#include "records/Clip.h"
#include "records/ClipEntry.h"

#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// Whether proxies lie in folders like their clips on the card, or all in one.
enum class ProxyTree { mirror, flat };

// Where proxies lie. Names are relative to the folder of the proxies unless they say otherwise.
namespace ProxyPaths {

// "_PROXY" in the card folder.
std::string folder(const std::string& cardPath);
// "_PROXY/{name}": as reports name a proxy.
std::string relative(std::string_view name);

// The tree in which the proxies that a report names lie; `mirror` when the report does not show it.
ProxyTree detect(const std::vector<ClipEntry>& entries);

// The name that an editor relinks by: that of the clip, whatever its container was. Never longer than a disk takes,
// with what a proxy's name gets while it is rendered.
std::string of(const Clip& clip, ProxyTree tree);

// `name` itself for 1, name_2 for 2, and so on.
std::string numbered(const std::string& name, int number);
// The first of `name`, name_2, name_3, … that is not in `used` and that `isFree` accepts; adds it to `used`. Two names
// count as one when some disk could take them for the same.
std::string pick(const std::string& name, std::set<std::string>& used,
                 const std::function<bool(const std::string&)>& isFree);

// The name under which a proxy is written: "A001.part.mov" for "A001.mov".
std::string part(const std::string& path);

} // namespace ProxyPaths

} // namespace velmora
