#pragma once

#include <memory>
#include <string>
#include <systemd/sd-bus.h>

namespace velmora {

// Owners for what sd-bus hands out.
struct BusRelease {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusHandle = std::unique_ptr<sd_bus, BusRelease>;
using BusMessage = std::unique_ptr<sd_bus_message, BusRelease>;

// An sd_bus_error that frees itself; text() is what a person should see.
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error_); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* raw() { return &error_; }
    // The service's own words, else the name of its error, else the system's text for `result`.
    std::string text(int result) const;

private:
    sd_bus_error error_{}; // the macro for it is C only
};

// A private connection to the system bus ($DBUS_SYSTEM_BUS_ADDRESS when set). Null and a text when there is none.
BusHandle openSystemBus(unsigned timeoutSeconds, std::string& problem);

} // namespace velmora
