#pragma once

#include "base/Errors.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace velmora {

// The card in the reader, as it was when a run began. Another one is told by what its volume says of itself; a volume
// that says nothing, by the file system that the path leads to.
class SourceCard {
public:
    using Identify = std::function<std::optional<std::string>(const std::string& source)>;

    // Without `identify` the volume itself is asked (CardIdentity::withVolume).
    SourceCard(std::string source, Identify identify);

    const std::optional<std::string>& identity() const noexcept { return identity_; }
    // It is in the reader now. A volume that was just mounted again may need a moment before it tells its name. False
    // as well when cancelled while waiting for that.
    bool isThere(const IsCancelled& isCancelled) const;

private:
    std::uint64_t deviceNow() const; // st_dev of the source; 0 when there is none

    std::string source_;
    Identify identify_;
    std::optional<std::string> identity_;
    std::uint64_t device_ = 0;
};

} // namespace velmora
