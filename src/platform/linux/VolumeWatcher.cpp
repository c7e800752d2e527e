#include "platform/VolumeWatcher.h"

#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <chrono>
#include <libmount/libmount.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <thread>

namespace velmora {

using namespace std::chrono_literals;

namespace {

struct Release {
    void operator()(libmnt_monitor* monitor) const { mnt_unref_monitor(monitor); }
};

} // namespace

struct VolumeWatcher::State {
    std::function<void()> onChange;
    std::unique_ptr<libmnt_monitor, Release> monitor;
    Descriptor stop;
    std::thread thread;

    void watch() noexcept {
        ::pthread_setname_np(::pthread_self(), "velmora.volumes");
        // A desktop mounts a card in several steps (the mount itself, its options): let them settle into one call.
        // Where mounts never rest (a machine that runs containers), the call is not put off for ever.
        constexpr std::chrono::milliseconds settle(100);
        constexpr std::chrono::milliseconds longest(1000);
        pollfd fds[] = {{mnt_monitor_get_fd(monitor.get()), POLLIN, 0}, {stop.get(), POLLIN, 0}};
        bool changed = false; // and not told yet
        std::chrono::steady_clock::time_point due;
        while (true) {
            const auto left = due - std::chrono::steady_clock::now();
            const auto wait = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(left), 0ms, settle);
            const int ready = ::poll(fds, 2, changed ? static_cast<int>(wait.count()) : -1);
            if (fds[1].revents != 0)
                return;
            const bool news = ready > 0 && fds[0].revents != 0;
            if (news)
                mnt_monitor_event_cleanup(monitor.get());
            if (news && !changed) {
                changed = true;
                due = std::chrono::steady_clock::now() + longest;
            } else if (changed && (ready == 0 || std::chrono::steady_clock::now() >= due)) {
                changed = false;
                try {
                    onChange();
                } catch (...) {
                    // The listener's failure must not end the watching.
                }
            }
        }
    }
};

VolumeWatcher::VolumeWatcher(std::function<void()> onChange) : state_(std::make_unique<State>()) {
    state_->onChange = std::move(onChange);
    state_->monitor.reset(mnt_new_monitor());
    state_->stop = Descriptor(::eventfd(0, EFD_CLOEXEC));
    if (state_->monitor == nullptr || mnt_monitor_enable_kernel(state_->monitor.get(), 1) < 0 ||
        mnt_monitor_get_fd(state_->monitor.get()) < 0 || !state_->stop)
        throwErrno("watch", "mounts");
    state_->thread = std::thread([state = state_.get()] { state->watch(); });
}

VolumeWatcher::~VolumeWatcher() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(state_->stop.get(), &one, sizeof one);
    state_->thread.join();
}

} // namespace velmora
