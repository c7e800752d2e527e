#include "platform/PowerInhibitor.h"

#include "platform/linux/Bus.h"

#include <fcntl.h>
#include <unistd.h>

namespace velmora {

namespace {

constexpr unsigned patienceSeconds = 5;

// "sleep" and "idle" do not cover the lid; "handle-lid-switch" does, and only in block mode.
constexpr const char* what = "sleep:idle:handle-lid-switch";

int takeLock(const std::string& why, std::string& problem) {
    const BusHandle bus = openSystemBus(patienceSeconds, problem);
    if (bus == nullptr)
        return -1;
    BusError error;
    sd_bus_message* answer = nullptr;
    int result = sd_bus_call_method(bus.get(), "org.freedesktop.login1", "/org/freedesktop/login1",
                                    "org.freedesktop.login1.Manager", "Inhibit", error.raw(), &answer, "ssss", what,
                                    "Velmora", why.c_str(), "block");
    const BusMessage message(answer);
    int theirs = -1; // belongs to the message
    if (result >= 0)
        result = sd_bus_message_read(answer, "h", &theirs);
    if (result < 0) {
        problem = error.text(result);
        return -1;
    }
    const int fd = ::fcntl(theirs, F_DUPFD_CLOEXEC, 3);
    if (fd < 0)
        problem = "the lock's descriptor could not be kept";
    return fd;
}

} // namespace

PowerInhibitor::PowerInhibitor(const std::string& why, const Log& log) {
    std::string problem;
    fd_ = takeLock(why, problem);
    if (fd_ < 0 && log)
        log("the machine may go to sleep during this run: " + problem);
}

PowerInhibitor::~PowerInhibitor() {
    if (fd_ >= 0)
        ::close(fd_);
}

bool PowerInhibitor::isHeld() const noexcept { return fd_ >= 0; }

} // namespace velmora
