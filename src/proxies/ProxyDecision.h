#pragma once

#include "records/ClipEntry.h"
#include "records/ProxySettings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

class ClipProbe;

// What became of the proxy of one clip.
enum class ProxyOutcome { waiting, done, existing, lighter, skipped, unsupported, failed };
std::string_view name(ProxyOutcome outcome) noexcept;

// What is decided of proxies before any is rendered, by whoever renders them.
namespace ProxyDecision {

struct NoProxy {
    ProxyOutcome outcome = ProxyOutcome::failed;
    std::string note; // why
};
// Why a clip, as it was analysed, gets no proxy; none when one is to be rendered.
std::optional<NoProxy> whyNot(const ClipEntry& entry, const ProxySettings& settings, const ClipProbe& probe);

// About how many bytes the proxies of these clips will need.
std::int64_t bytesOf(const std::vector<const ClipEntry*>& clips, ProxySettings settings);

// "decode at 10:00:00:12: Invalid data": what the check of a clip's content has found. Empty for a sound clip.
std::string defectText(const ClipContent& content);

// "Proxy renamed to {name} (name clash) — relink it by hand."
std::string renamedText(std::string_view file);

} // namespace ProxyDecision

} // namespace velmora
