#include "platform/linux/Bus.h"

#include <cstdint>
#include <system_error>

namespace velmora {

std::string BusError::text(int result) const {
    if (error_.message != nullptr && *error_.message != '\0')
        return error_.message;
    if (error_.name != nullptr)
        return error_.name;
    return std::generic_category().message(result < 0 ? -result : result);
}

BusHandle openSystemBus(unsigned timeoutSeconds, std::string& problem) {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    BusHandle handle(bus);
    if (result < 0) {
        problem = "no system bus: " + std::generic_category().message(-result);
        return nullptr;
    }
    sd_bus_set_method_call_timeout(bus, std::uint64_t{timeoutSeconds} * 1'000'000);
    return handle;
}

} // namespace velmora
