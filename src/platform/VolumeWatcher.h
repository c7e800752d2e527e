#pragma once

#include <functional>
#include <memory>

namespace velmora {

// Tells when the set of mounted volumes has changed. What changed is for VolumeFacts::userVolumes to say: several
// changes close together are one call.
class VolumeWatcher {
public:
    // `onChange` runs on the watcher's own thread, named "velmora.volumes". IOError when the kernel gives no monitor.
    explicit VolumeWatcher(std::function<void()> onChange);
    ~VolumeWatcher(); // returns when a call that is under way has ended; none follows
    VolumeWatcher(const VolumeWatcher&) = delete;
    VolumeWatcher& operator=(const VolumeWatcher&) = delete;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace velmora
