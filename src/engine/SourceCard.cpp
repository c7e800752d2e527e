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

// A volume that was just mounted again may need a moment before it tells its name.
template <class IsSo>
bool await(IsSo isSo, const IsCancelled& isCancelled) {
    for (int attempt = 1; !isSo(); ++attempt) {
        if (attempt == identityTries || isCancelled())
            return false;
        std::this_thread::sleep_for(identityPause);
    }
    return true;
}

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

// A card that was mounted again may have another number: what it says of itself goes first. On the same file system
// another folder is another card, whatever the volume says.
bool SourceCard::isThereNow() const {
    if (identity_ ? identify_(source_) != identity_ : deviceNow() != device_)
        return false;
    return !held_ || deviceNow() != held_->device() || isWhereHeld();
}

bool SourceCard::isWhereHeld() const {
    try {
        const FileFacts now = IO::stat(source_);
        return held_ && now.device == held_->device() && now.inode == held_->inode();
    } catch (const IOError&) {
        return false;
    }
}

// The folder is opened before its identity is asked, so that the answer is about the open folder.
bool SourceCard::holdNow() {
    held_.reset();
    try {
        held_.emplace(IO::realPath(source_));
    } catch (const IOError&) {
        return false;
    }
    return isThereNow() && isWhereHeld();
}

bool SourceCard::hold(const IsCancelled& isCancelled) {
    const bool held = await([this] { return holdNow(); }, isCancelled);
    if (!held)
        letGo();
    return held;
}

UncachedReader SourceCard::open(const std::string& relative) const {
    if (!held_)
        throw IOError("open", source_ + "/" + relative, ENODEV);
    return UncachedReader::beneath(*held_, relative);
}

bool SourceCard::isThere(const IsCancelled& isCancelled) const {
    return await([this] { return isThereNow(); }, isCancelled);
}

} // namespace velmora
