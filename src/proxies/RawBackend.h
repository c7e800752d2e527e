#pragma once

#include "proxies/FrameSource.h"
#include "records/Clip.h"
#include "records/ClipInfo.h"
#include "records/ExternalTools.h"
#include "records/ProxySettings.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// What a back-end is asked for. References live as long as the call.
struct FrameRequest {
    const Clip& clip;
    const std::string& clipPath; // full path of the file, the first segment, or the folder of a frame sequence
    const ClipInfo& info;
    const ProxySettings& settings;
    std::optional<std::string> look;          // a .cube to bake in, for a back-end that does so
    const ExternalTools& tools;               // resolved
    const std::string& tempDir;               // a private folder; what is left there goes with the renderer
    std::optional<double> singleFrameAt = {}; // seconds: one frame is wanted, for a thumbnail
    IsCancelled isCancelled = {};
    // Called with 0 … 1 while a back-end writes an intermediate before it answers.
    std::function<void(double)> progress = {};
};

// Reads one maker's camera RAW with the maker's own tool. Stateless, or safe to call from several threads.
class RawBackend {
public:
    virtual ~RawBackend() = default;
    virtual ClipFormat format() const = 0;
    virtual std::string missingHint() const = 0; // why no clip of this format can be read, and what would help
    virtual bool isAvailable(const ExternalTools& tools) const = 0;
    // Throws ToolError.
    virtual ClipInfo probe(const std::string& clipPath, const ExternalTools& tools,
                           const IsCancelled& isCancelled) const = 0;
    // Writes the intermediate, where the maker's tool cannot pipe. Throws ToolError ("cancelled" when told to stop;
    // RawDecoderError where the failure is understood) and IOError; nothing is left then.
    virtual FrameSource source(const FrameRequest& request) const = 0;
    // True when `look` goes into the frames, so that the renderer must not apply the LUT again.
    virtual bool bakesLook() const { return false; }
};

// The back-ends of this product, one for each RAW format.
namespace RawBackends {
std::vector<std::unique_ptr<RawBackend>> all();
} // namespace RawBackends

} // namespace velmora
