#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "platform/PrivateFolder.h"
#include "records/Clip.h"
#include "records/ClipEntry.h"
#include "records/ClipInfo.h"
#include "records/LutUse.h"
#include "records/ProxySettings.h"

#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

class ClipProbe;
class RawBackend;
struct FramePosition;

// Takes the small pictures of clips, as JPEGs of 180 lines. None of them is worth a failure: what cannot be taken is
// left out. Any thread.
class Thumbnails {
public:
    explicit Thumbnails(const ClipProbe& probe) : probe_(probe) {} // lives as long; throws IOError

    // At most three, with the LUT of the clip where one applies. Clips of a maker whose tool gives no single frames
    // have none before their proxy is there. Throws Cancelled.
    std::vector<Thumbnail> of(const Clip& clip, const std::string& cardPath, const ClipInfo& info, const LutUse& lut,
                              const IsCancelled& isCancelled);

    // One picture: the first frame at or after `seconds`. Empty where there is none. Throws ToolError.
    std::string snapshot(const Clip& clip, const std::string& clipPath, const ClipInfo& info, const LutUse& lut,
                         double seconds, const IsCancelled& isCancelled);

private:
    std::string rawFrame(const RawBackend& backend, const Clip& clip, const std::string& clipPath, const ClipInfo& info,
                         const LutUse& lut, double seconds, const IsCancelled& isCancelled);
    // The name under which ffmpeg finds the LUT of a clip in its working folder.
    std::optional<std::string> lutName(const LutUse& lut);

    const ClipProbe& probe_;
    PrivateFolder folder_;
    std::atomic<int> pictures_{0};
    Mutex mutex_;
    std::map<std::string, std::string> luts_ GUARDED_BY(mutex_); // name in the folder by the user's path
};

} // namespace velmora
