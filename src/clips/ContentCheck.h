#pragma once

#include "base/Mutex.h"
#include "records/Clip.h"
#include "records/ClipContent.h"
#include "records/ClipInfo.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// Listens while ffmpeg decodes a clip, and judges the clip by what was heard. Only the first defect counts: what comes
// after it is mostly its echo. Lines arrive from reader threads; every function may be called on any thread.
//
// docs/content-check.md shows which damage it finds in clips, and that it reports none in sound clips.
class ContentCheck {
public:
    void errorLine(std::string_view line);    // a line of ffmpeg's error output
    void progressLine(std::string_view line); // a line of its `-progress` output
    void reset();                             // before the clip is decoded anew

    // `clip` and `info` as they were probed.
    ClipContent verdict(const Clip& clip, const ClipInfo& info) const;

    // The words in ClipContent::state.
    static constexpr std::string_view ok = "ok";
    static constexpr std::string_view defect = "warn"; // as reports count it

    // "decode", "audio" or "timestamps"; none for a line that tells of no damage.
    static std::optional<std::string_view> kindOf(std::string_view line);
    // The timecode of a frame; none where the clip has none.
    static std::optional<std::string> timecodeAt(std::int64_t frame, const ClipInfo& info);

private:
    mutable Mutex mutex_;
    std::int64_t frame_ GUARDED_BY(mutex_) = 0; // the last one reported
    std::optional<std::string> kind_ GUARDED_BY(mutex_);
    std::optional<std::string> message_ GUARDED_BY(mutex_);
    std::optional<std::int64_t> at_ GUARDED_BY(mutex_); // the frame of the first defect
};

} // namespace velmora
