#include "records/HashKinds.h"

#include "base/Hex.h"
#include "base/Text.h"

#include <algorithm>

namespace velmora {

std::vector<std::string> HashKinds::names() const {
    return hasMd5() ? std::vector<std::string>{"xxh64", "md5"} : std::vector<std::string>{"xxh64"};
}

HashKinds HashKinds::fromSetting(const std::optional<std::string>& setting) { return setting == "both" ? both : xxh64; }

HashKinds HashKinds::from(const std::optional<std::vector<std::string>>& names) {
    const auto isMd5 = [](const std::string& name) { return equalIgnoringCase(name, "md5"); };
    return names && std::any_of(names->begin(), names->end(), isMd5) ? both : xxh64;
}

std::optional<std::string> FileHashes::xxh64Hex() const {
    return xxh64 ? std::optional(Hex::of64(*xxh64)) : std::nullopt;
}

std::optional<std::string> FileHashes::md5Hex() const {
    return md5 ? std::optional(Hex::ofBytes(std::span<const unsigned char>(*md5))) : std::nullopt;
}

} // namespace velmora
