#pragma once

#include "base/Errors.h"
#include "records/AppSettings.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// The ids of the built-in LUTs. None: the catalogue is not at hand, and every id passes.
using LutIds = std::optional<std::vector<std::string>>;

// The user's settings as one JSON document, `settings.json` in the application-support folder.
//
// The document is read tolerantly, key by key, and inside the sections `proxy`, `tools`, `naming` and `outputs` again
// key by key: a value that has the wrong type, or that only a newer version knows, is skipped. It is noted in
// `unreadable`, the default is used, and writing puts the old value back as it was. Keys that this version does not
// know are kept as well, at the top and inside `proxy`, `naming` and `outputs`. The file is replaced atomically: a
// crash leaves the old document or the new one.
namespace SettingsStore {

inline constexpr std::string_view fileName = "settings.json";
inline const std::vector<std::string> mergedSections{"proxy", "naming", "outputs"};
inline const std::vector<std::int64_t> proxyHeights{540, 720, 1080, 2160}; // those that are offered

// Never throws for what the bytes hold; a document that is no JSON object at all reads as the defaults, and `damaged`
// (when given) turns true.
AppSettings decode(std::string_view data, const LutIds& lutIds = {}, bool* damaged = nullptr);
std::string encode(const AppSettings& settings);
// Repairs values that cannot be used: numbers outside their bounds, empty and repeated texts, unknown choices and LUTs.
void normalize(AppSettings& settings, const LutIds& lutIds = {});

// The settings of a folder, the defaults when there are none. Throws IOError when the file is there and cannot be read.
AppSettings load(const std::string& folder, const LutIds& lutIds = {}, bool* damaged = nullptr);
// Reads, changes and writes under a lock between processes, so that two changes at once both survive. A document that
// is no JSON object is renamed to "settings.json.corrupt-{yyyyMMdd-HHmmss}" first and the log says so. Throws IOError,
// and what `change` throws; then nothing is written.
AppSettings update(const std::string& folder, const std::function<void(AppSettings&)>& change,
                   const LutIds& lutIds = {}, const Log& log = {});

} // namespace SettingsStore

} // namespace velmora
