#include "records/SpaceNeed.h"

#include "base/Text.h"

#include <limits>
#include <vector>

namespace velmora {

namespace {

std::int64_t sum(std::int64_t a, std::int64_t b) {
    std::int64_t result = 0;
    return __builtin_add_overflow(a, b, &result) ? std::numeric_limits<std::int64_t>::max() : result;
}

} // namespace

std::int64_t SpaceNeed::total() const { return sum(sum(card, proxy), report); }

std::string SpaceNeed::partsText() const {
    std::vector<std::string> parts;
    if (card > 0)
        parts.push_back(formatBytes(card) + " cards");
    if (proxy > 0)
        parts.push_back("proxy ~" + formatBytes(proxy));
    if (report > 0)
        parts.push_back("reports and overhead " + formatBytes(report));
    return join(parts, ", ");
}

SpaceNeed& SpaceNeed::operator+=(const SpaceNeed& other) {
    card = sum(card, other.card);
    proxy = sum(proxy, other.proxy);
    report = sum(report, other.report);
    return *this;
}

} // namespace velmora
