#pragma once

#include "records/ClipInfo.h"
#include "records/ProxySettings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

// One way to encode the pictures of a proxy.
struct VideoEncoder {
    std::string name;                      // ffmpeg's: "h264_nvenc"
    std::vector<std::string> deviceArgs;   // before the input
    std::vector<std::string> arguments;    // in place of those that depend on the clip
    std::string filterEnd = {};            // what hands frames to the hardware, after the last filter; may be empty
    std::vector<std::string> devices = {}; // one of these must be there; empty: it needs none
};

// What editors need of a proxy: H.264 in High profile, 8 bit 4:2:0, closed groups of a second at most so that any frame
// is near a key frame, two B-frames where the encoder knows them, all of it tagged Rec. 709.
namespace EncoderArgs {

// The encoders for a codec, best first: hardware before software, which always works.
std::vector<VideoEncoder> candidates(ProxyCodec codec);

// True when one of the devices exists or none is needed. If not, no program has to be started to try the encoder.
bool mayHave(const std::vector<std::string>& devices);

// What `-vf` must end with for the codec: "yuv420p" or "yuv422p10le".
std::string pixelFormat(ProxyCodec codec);

// The encoder arguments for one clip. `fps` sets the length of a group.
std::vector<std::string> video(const VideoEncoder& encoder, ProxyCodec codec, std::int64_t bitrateMbps, double fps);

// Each stream of the source as one stream of the proxy, with as many channels: AAC, or PCM where AAC has no such
// layout. `streams`: the channels of each, as the clip was probed.
std::vector<std::string> audio(const std::vector<std::int64_t>& streams);
// kbit/s of an AAC stream.
std::int64_t audioKilobits(std::int64_t channels);

} // namespace EncoderArgs

} // namespace velmora
