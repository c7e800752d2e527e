#include "platform/Eject.h"

#include "platform/linux/Bus.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

namespace velmora::Eject {

namespace {

constexpr const char* service = "org.freedesktop.UDisks2";
constexpr const char* blockInterface = "org.freedesktop.UDisks2.Block";
constexpr const char* filesystemInterface = "org.freedesktop.UDisks2.Filesystem";
constexpr const char* driveInterface = "org.freedesktop.UDisks2.Drive";
// A full write cache on a slow stick takes minutes to go out, and the answer comes only then.
constexpr unsigned patienceSeconds = 600;

// What is needed of UDisks' objects, read in one call, so that all decisions rest on one moment.
struct Block {
    std::string device;
    std::string drive; // object path; "/" for none (a loop device)
    std::size_t mounts = 0;
};
struct Drive {
    bool ejectable = false;
    bool mediaRemovable = false;
    bool canPowerOff = false;
    std::string sibling; // drives that hang on one plug share it
};
struct Objects {
    std::map<std::string, Block> blocks;
    std::map<std::string, Drive> drives;
};

// Thrown and caught inside this file: any call that the bus or the service refused.
struct Refused {
    std::string text;
};

void demand(int result, const BusError& error = {}) {
    if (result < 0)
        throw Refused{error.text(result)};
}

std::string readText(sd_bus_message* m, char type) {
    const char* text = nullptr;
    demand(sd_bus_message_enter_container(m, 'v', std::string(1, type).c_str()));
    demand(sd_bus_message_read_basic(m, type, static_cast<void*>(&text)));
    demand(sd_bus_message_exit_container(m));
    return text == nullptr ? "" : text;
}

bool readFlag(sd_bus_message* m) {
    int flag = 0;
    demand(sd_bus_message_enter_container(m, 'v', "b"));
    demand(sd_bus_message_read_basic(m, 'b', &flag));
    demand(sd_bus_message_exit_container(m));
    return flag != 0;
}

// A path as UDisks sends it: bytes with a NUL at their end.
std::string readBytes(sd_bus_message* m) {
    const void* bytes = nullptr;
    std::size_t length = 0;
    demand(sd_bus_message_enter_container(m, 'v', "ay"));
    demand(sd_bus_message_read_array(m, 'y', &bytes, &length));
    demand(sd_bus_message_exit_container(m));
    const std::string text(static_cast<const char*>(bytes), length);
    return text.substr(0, text.find('\0'));
}

std::size_t countPaths(sd_bus_message* m) {
    std::size_t count = 0;
    demand(sd_bus_message_enter_container(m, 'v', "aay"));
    demand(sd_bus_message_enter_container(m, 'a', "ay"));
    while (sd_bus_message_at_end(m, 0) == 0) {
        demand(sd_bus_message_skip(m, "ay"));
        ++count;
    }
    demand(sd_bus_message_exit_container(m));
    demand(sd_bus_message_exit_container(m));
    return count;
}

void readProperty(sd_bus_message* m, const std::string& path, const std::string& interface, const std::string& name,
                  Objects& objects) {
    if (interface == blockInterface && name == "Device")
        objects.blocks[path].device = readBytes(m);
    else if (interface == blockInterface && name == "Drive")
        objects.blocks[path].drive = readText(m, 'o');
    else if (interface == filesystemInterface && name == "MountPoints")
        objects.blocks[path].mounts = countPaths(m);
    else if (interface == driveInterface && name == "Ejectable")
        objects.drives[path].ejectable = readFlag(m);
    else if (interface == driveInterface && name == "MediaRemovable")
        objects.drives[path].mediaRemovable = readFlag(m);
    else if (interface == driveInterface && name == "CanPowerOff")
        objects.drives[path].canPowerOff = readFlag(m);
    else if (interface == driveInterface && name == "SiblingId")
        objects.drives[path].sibling = readText(m, 's');
    else
        demand(sd_bus_message_skip(m, "v"));
}

// Walks one dictionary and calls `entry` with each key; `entry` reads the value.
template <class Entry>
void eachEntry(sd_bus_message* m, const char* types, char keyType, Entry entry) {
    demand(sd_bus_message_enter_container(m, 'a', ("{" + std::string(types) + "}").c_str()));
    while (sd_bus_message_enter_container(m, 'e', types) > 0) {
        const char* key = nullptr;
        demand(sd_bus_message_read_basic(m, keyType, static_cast<void*>(&key)));
        entry(std::string(key));
        demand(sd_bus_message_exit_container(m));
    }
    demand(sd_bus_message_exit_container(m));
}

Objects readObjects(sd_bus* bus) {
    BusError error;
    sd_bus_message* answer = nullptr;
    const int result =
        sd_bus_call_method(bus, service, "/org/freedesktop/UDisks2", "org.freedesktop.DBus.ObjectManager",
                           "GetManagedObjects", error.raw(), &answer, "");
    const BusMessage message(answer);
    demand(result, error);
    Objects objects;
    eachEntry(answer, "oa{sa{sv}}", 'o', [&](const std::string& path) {
        eachEntry(answer, "sa{sv}", 's', [&](const std::string& interface) {
            eachEntry(answer, "sv", 's',
                      [&](const std::string& name) { readProperty(answer, path, interface, name, objects); });
        });
    });
    return objects;
}

// All the calls used here take one dictionary of options and answer nothing.
void call(sd_bus* bus, const std::string& path, const char* interface, const char* method) {
    BusError error;
    demand(sd_bus_call_method(bus, service, path.c_str(), interface, method, error.raw(), nullptr, "a{sv}", 0), error);
}

std::string findBlock(const Objects& objects, const std::string& device) {
    std::error_code none;
    const std::filesystem::path real = std::filesystem::canonical(device, none);
    for (const auto& [path, block] : objects.blocks)
        if (!block.device.empty() && (block.device == device || block.device == real.string()))
            return path;
    throw Refused{"the disk of " + device + " is not known to the disk service"};
}

// Powering off goes through the plug: whatever else hangs on it goes dark as well.
bool powersOffAlone(const Objects& objects, const std::string& path) {
    const Drive& drive = objects.drives.at(path);
    return drive.canPowerOff && std::ranges::none_of(objects.drives, [&](const auto& other) {
               return other.first != path && !drive.sibling.empty() && other.second.sibling == drive.sibling;
           });
}

void ejectDisk(sd_bus* bus, const std::string& device) {
    const Objects objects = readObjects(bus);
    const std::string own = findBlock(objects, device);
    const std::string drivePath = objects.blocks.at(own).drive;
    const auto known = objects.drives.find(drivePath);
    for (const auto& [path, block] : objects.blocks)
        if (path == own || (known != objects.drives.end() && block.drive == drivePath))
            for (std::size_t mount = 0; mount < block.mounts; ++mount)
                call(bus, path, filesystemInterface, "Unmount");
    if (known == objects.drives.end()) {
        if (device.starts_with("/dev/loop"))
            return; // an image: unmounted is all it can be
        throw Refused{"it is unmounted, but the disk below it is not known (encrypted, or part of an array) — lock or "
                      "stop it before you pull it"};
    }
    const Drive& drive = known->second;
    if (drive.ejectable || drive.mediaRemovable)
        call(bus, drivePath, driveInterface, "Eject");
    // A card reader stays on for the next card.
    if (!drive.mediaRemovable && powersOffAlone(objects, drivePath))
        call(bus, drivePath, driveInterface, "PowerOff");
}

} // namespace

std::optional<std::string> disk(const std::string& device) try {
    std::string problem;
    const BusHandle bus = openSystemBus(patienceSeconds, problem);
    if (bus == nullptr)
        return problem;
    sd_bus_set_allow_interactive_authorization(bus.get(), 1);
    ejectDisk(bus.get(), device);
    return std::nullopt;
} catch (const Refused& refused) {
    return refused.text;
}

} // namespace velmora::Eject
