#pragma once

#include "base/Errors.h"

#include <string>
#include <utility>

namespace velmora {

// A maker's tool has failed in a way that is understood: the note says to a person what it means and what would help,
// and is the message that everybody shows; what the tool said itself is kept for the log.
class RawDecoderError : public ToolError {
public:
    RawDecoderError(const std::string& note, ToolError decoderError)
        : ToolError(decoderError.tool(), decoderError.status(), note), decoderError_(std::move(decoderError)) {}
    const std::string& note() const noexcept { return message(); }
    const ToolError& decoderError() const noexcept { return decoderError_; }

    // The note of a back-end that cannot give single frames.
    static constexpr const char* thumbnailFromProxy = "thumbnail from proxy";

private:
    ToolError decoderError_;
};

} // namespace velmora
