#pragma once

#include "base/Errors.h"
#include "base/Mutex.h"
#include "proxies/EncoderArgs.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora {

// Finds out what the hardware of this machine can do, by running ffmpeg on a frame of black. An answer is logged and
// kept for later questions. Any thread.
class EncoderTrial {
public:
    struct Decoder {
        std::string name;                 // for "-hwaccel"
        std::vector<std::string> devices; // one of these must be there; empty: it needs none
    };
    static std::vector<Decoder> hardwareDecoders();

    EncoderTrial(std::string ffmpeg, Log log, std::vector<Decoder> decoders = hardwareDecoders());

    // The first candidate that encodes a frame of that height. When none does, throws the ToolError of the last.
    VideoEncoder encoder(ProxyCodec codec, std::int64_t height, const IsCancelled& isCancelled = {});
    // The value for "-hwaccel"; none when this machine has no hardware that decodes.
    std::optional<std::string> decoder(const IsCancelled& isCancelled = {});

private:
    VideoEncoder tryAll(ProxyCodec codec, std::int64_t height, const IsCancelled& isCancelled);

    std::string ffmpeg_;
    Log log_;
    std::vector<Decoder> decoders_;
    Mutex mutex_; // held during a trial: whoever asks meanwhile wants the same answer
    std::map<std::pair<ProxyCodec, std::int64_t>, VideoEncoder> encoders_ GUARDED_BY(mutex_);
    std::optional<std::optional<std::string>> decoder_ GUARDED_BY(mutex_);
};

} // namespace velmora
