#include "engine/SourceCard.h"

#include "disks/CardIdentity.h"
#include "platform/IO.h"

#include <chrono>
#include <thread>
#include <utility>

namespace velmora {

namespace {

constexpr int identityTries = 3;
constexpr std::chrono::milliseconds identityPause{250};

} // namespace

SourceCard::SourceCard(std::string source, Identify identify)
    : source_(std::move(source)), identify_(identify ? std::move(identify) : Identify(CardIdentity::withVolume)),
      identity_(identify_(source_)), device_(deviceNow()) {}

std::uint64_t SourceCard::deviceNow() const {
    try {
        return IO::stat(source_).device;
    } catch (const IOError&) {
        return 0;
    }
}

bool SourceCard::isThere(const IsCancelled& isCancelled) const {
    for (int attempt = 1;; ++attempt) {
        // A card that was mounted again may have another number: what it says of itself goes first.
        if (identity_ ? identify_(source_) == identity_ : deviceNow() == device_)
            return true;
        if (attempt == identityTries || isCancelled())
            return false;
        std::this_thread::sleep_for(identityPause);
    }
}

} // namespace velmora
