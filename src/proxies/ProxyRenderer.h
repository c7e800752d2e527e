#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "platform/PrivateFolder.h"
#include "proxies/EncoderTrial.h"
#include "proxies/FrameSource.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"
#include "records/LutUse.h"
#include "records/ProxySettings.h"

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

class ClipProbe;

// A proxy that was not made. `what()` is a sentence for the user.
class RenderError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
// The second try, without hardware, has failed as well.
class ProxyRetryFailed : public RenderError {
public:
    using RenderError::RenderError;
};

// One proxy to be made. References live as long as the call.
struct RenderRequest {
    const Clip& clip;
    std::string input; // full path of the clip's file, first segment or folder, or its http address at a range server
    const ClipInfo& info;
    const LutUse& lut;
    std::string output; // full path; never replaced

    std::function<void(double fraction)> progress = {}; // on another thread
    // Where `input` is an address: a number that grows while it is read.
    std::function<std::int64_t()> activity = {};
    IsCancelled isCancelled = {};
    // For a check of the clip's content: what the decoder says, how far it is, and that it starts anew. Where there is
    // someone to hear it, ffmpeg tells of warnings too.
    std::function<void(std::string_view)> onErrorLine = {};
    std::function<void(std::string_view)> onProgressLine = {};
    std::function<void()> onRestart = {};
    // Called when the film is whole, before it gets its name: what this adds to the film is there when the name is.
    std::function<void(const std::string& film)> onWhole = {};
};

// Makes one proxy a clip with ffmpeg. One renderer serves a whole job; render() may run on several threads at once and
// blocks each until its proxy stands or has failed.
class ProxyRenderer {
public:
    // `probe` lives as long as the object. Throws IOError when there is no room for temporary files.
    ProxyRenderer(ProxySettings settings, const ClipProbe& probe, Log log,
                  std::vector<EncoderTrial::Decoder> decoders = EncoderTrial::hardwareDecoders());

    // Tries with hardware first where there is some, then once more without. Throws ToolError ("cancelled" when told to
    // stop), RenderError, IOError. A failure leaves neither a part file nor a file under the final name.
    void render(const RenderRequest& request);

    // The name of ffmpeg's encoder for the video of these proxies. Throws ToolError when none works.
    std::string encoderName(const IsCancelled& isCancelled) {
        return trial_.encoder(settings_.codec, settings_.height, isCancelled).name;
    }

    double stallTimeout = 60; // seconds without a new frame; to be set before the first render
    void setHardwareDecodeEnabled(bool enabled) { hardwareDecode_ = enabled; }
    bool hardwareDecodeEnabled() const { return hardwareDecode_; }

    const std::string& tempDir() const { return temporary_.path(); }

private:
    void renderOnce(const RenderRequest& request, const std::optional<std::string>& decoder);
    FrameSource sourceOf(const RenderRequest& request, const std::optional<std::string>& look,
                         const std::optional<std::string>& decoder) const;
    std::string chain(const RenderRequest& request, const FrameSource& source, const VideoEncoder& encoder,
                      const std::optional<std::string>& lut);
    std::string prepareLut(const LutUse& lut, bool baked);
    std::optional<std::string> font();
    std::string newName(std::string_view kind, std::string_view extension);

    ProxySettings settings_;
    const ClipProbe& probe_;
    Log log_;
    PrivateFolder temporary_;
    EncoderTrial trial_;
    std::atomic<bool> hardwareDecode_{true};
    std::atomic<int> names_{0};

    Mutex mutex_;
    std::map<std::string, std::string> luts_ GUARDED_BY(mutex_); // file in the temporary folder by path of the user's
    std::optional<std::optional<std::string>> font_ GUARDED_BY(mutex_);
};

} // namespace velmora
