#pragma once

#include "base/Errors.h"
#include "platform/File.h"
#include "platform/HeldFolder.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// The card that was in the reader when a run began. Another card is recognised by the identity that its volume gives,
// or, where the volume gives none, by the number of the file system at the path.
//
// While its files are read, its top folder is held open: whatever is mounted at its path or moved there meanwhile is
// never read in its place. A held card cannot be unmounted, so a pause lets it go. Not thread-safe.
class SourceCard {
public:
    // The source error of every file that another card, or none, left unread.
    static constexpr std::string_view changed = "card changed while paused";

    using Identify = std::function<std::optional<std::string>(const std::string& source)>;

    // Without `identify` the volume itself is asked (CardIdentity::withVolume).
    SourceCard(std::string source, Identify identify);

    const std::optional<std::string>& identity() const noexcept { return identity_; }
    // True when the card is in the reader now. A volume that was just mounted again may need a moment before it tells
    // its name: this waits for that. False when cancelled meanwhile.
    bool isThere(const IsCancelled& isCancelled) const;

    // Holds the card from now on. Returns what `isThere` would; after false nothing is held.
    bool hold(const IsCancelled& isCancelled);
    void letGo() noexcept { held_.reset(); }
    // True when the card's path still leads to the folder that is held.
    bool isWhereHeld() const;
    // A file of the card that is held, as UncachedReader::beneath opens it. Throws IOError.
    UncachedReader open(const std::string& relative) const;

private:
    std::uint64_t deviceNow() const; // st_dev of the source; 0 when there is none
    bool isThereNow() const;
    bool holdNow();

    std::string source_;
    Identify identify_;
    std::optional<std::string> identity_;
    std::uint64_t device_ = 0;
    std::optional<HeldFolder> held_;
};

} // namespace velmora
