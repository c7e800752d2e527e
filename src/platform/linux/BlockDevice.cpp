#include "platform/linux/BlockDevice.h"

#include <blkid/blkid.h>
#include <libudev.h>
#include <memory>
#include <sys/stat.h>

namespace velmora::BlockDevice {

namespace {

struct Release {
    void operator()(udev* handle) const { udev_unref(handle); }
    void operator()(udev_device* device) const { udev_device_unref(device); }
    void operator()(blkid_struct_probe* probe) const { blkid_free_probe(probe); }
};

// udev writes characters that a property cannot hold as \xNN.
std::string decoded(const char* value) {
    std::string out;
    for (const char* at = value == nullptr ? "" : value; *at != '\0'; ++at) {
        const auto hex = [](char c) {
            return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        if (at[0] == '\\' && at[1] == 'x' && hex(at[2]) >= 0 && hex(at[3]) >= 0) {
            out += static_cast<char>(hex(at[2]) * 16 + hex(at[3]));
            at += 3;
        } else {
            out += *at;
        }
    }
    return out;
}

Identity fromUdev(dev_t number) {
    const std::unique_ptr<udev, Release> handle(udev_new());
    if (handle == nullptr)
        return {};
    const std::unique_ptr<udev_device, Release> device(udev_device_new_from_devnum(handle.get(), 'b', number));
    if (device == nullptr)
        return {};
    const auto property = [&](const char* name) { return decoded(udev_device_get_property_value(device.get(), name)); };
    return {property("ID_FS_TYPE"), property("ID_FS_UUID"), property("ID_FS_LABEL_ENC")};
}

Identity fromDevice(const std::string& path) {
    const std::unique_ptr<blkid_struct_probe, Release> probe(blkid_new_probe_from_filename(path.c_str()));
    if (probe == nullptr)
        return {};
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL);
    if (blkid_do_safeprobe(probe.get()) != 0)
        return {};
    const auto value = [&](const char* name) {
        const char* text = nullptr;
        return blkid_probe_lookup_value(probe.get(), name, &text, nullptr) == 0 && text != nullptr ? std::string(text)
                                                                                                   : std::string();
    };
    return {value("TYPE"), value("UUID"), value("LABEL")};
}

} // namespace

Identity identify(const std::string& device) {
    struct stat info{};
    if (::stat(device.c_str(), &info) != 0 || !S_ISBLK(info.st_mode))
        return {};
    Identity identity = fromUdev(info.st_rdev);
    return identity.type.empty() ? fromDevice(device) : identity;
}

} // namespace velmora::BlockDevice
