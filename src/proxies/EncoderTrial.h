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

// Finds out what the hardware of this machine does, by letting ffmpeg encode one frame. Each question is asked once;
// the outcome stands in the log. Any thread.
class EncoderTrial {
public:
    struct Decoder {
        std::string name;                 // for "-hwaccel"
        std::vector<std::string> devices; // one of these must be there; empty: it needs none
    };
    static std::vector<Decoder> hardwareDecoders();

    EncoderTrial(std::string ffmpeg, Log log, std::vector<Decoder> decoders = hardwareDecoders());

    // The first candidate that has encoded a frame of that height. Throws ToolError, the last one's, when none has.
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
