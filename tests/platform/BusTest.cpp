#include "platform/Eject.h"
#include "platform/PowerInhibitor.h"
#include "support/PrivateBus.h"

namespace velmora {
namespace {

using test::PrivateBus;
using testing::HasSubstr;

std::string inhibitors(PrivateBus& bus) {
    return bus.ask("org.freedesktop.login1", "/org/freedesktop/login1",
                   "org.freedesktop.login1.Manager.ListInhibitors");
}

TEST(PowerInhibitor, HoldsTheLoginManagersLockForItsLifeOnly) {
    VELMORA_NEEDS(PrivateBus::unavailable());
    PrivateBus bus;
    std::vector<std::string> log;
    const auto keep = [&](std::string_view line) { log.emplace_back(line); };
    {
        const PowerInhibitor refused("Copying A001", keep); // nobody is there yet
        EXPECT_FALSE(refused.isHeld());
        ASSERT_EQ(log.size(), 1U);
        EXPECT_THAT(log[0], HasSubstr("org.freedesktop.login1"));
    }
    bus.play("org.freedesktop.login1", "logind");
    {
        const PowerInhibitor held("Copying A001", keep);
        EXPECT_TRUE(held.isHeld());
        EXPECT_EQ(log.size(), 1U);
        const std::string list = inhibitors(bus);
        for (const char* word : {"\"sleep:idle:handle-lid-switch\"", "\"Velmora\"", "\"Copying A001\"", "\"block\""})
            EXPECT_THAT(list, HasSubstr(word));
    }
    std::string list;
    for (int i = 0; i < 100; ++i)
        if (list = inhibitors(bus); list.find("Velmora") == std::string::npos)
            break;
    EXPECT_THAT(list, testing::Not(HasSubstr("Velmora")));
}

TEST(PowerInhibitor, IsALineInTheLogWhereThereIsNoBus) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere/bus", 1);
    int lines = 0;
    const PowerInhibitor none("Copying", [&](std::string_view) { ++lines; });
    EXPECT_FALSE(none.isHeld());
    EXPECT_EQ(lines, 1);
    EXPECT_THAT(Eject::disk("/dev/sdb1").value_or(""), HasSubstr("no system bus"));
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

// A disk service with the objects that a test describes: it writes down each call, and a block named "busy" is in use.
constexpr const char* diskService = R"(
import dbus
BUS_NAME = 'org.freedesktop.UDisks2'
MAIN_OBJ = '/org/freedesktop/UDisks2'
MAIN_IFACE = 'org.freedesktop.UDisks2.Manager'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True
U = 'org.freedesktop.UDisks2.'

def path_bytes(text):
    return dbus.Array([dbus.Byte(b) for b in text.encode() + b'\0'], signature='y')

def load(mock, parameters):
    log = parameters['log']
    def note(word, busy=False):
        code = "open('%s', 'a').write('%s\\n')\n" % (log, word)
        if busy:
            code += "raise dbus.exceptions.DBusException('Error unmounting: target is busy', " \
                    "name='org.freedesktop.UDisks2.Error.DeviceBusy')\n"
        return code
    for name, d in parameters['drives'].items():
        path = MAIN_OBJ + '/drives/' + name
        mock.AddObject(path, U + 'Drive', {
            'Vendor': dbus.String('Maker'), 'Size': dbus.UInt64(64), 'Ejectable': dbus.Boolean(d['ejectable']),
            'MediaRemovable': dbus.Boolean(d['removable']), 'CanPowerOff': dbus.Boolean(d['off']),
            'SiblingId': dbus.String(d['sibling'])},
            [('Eject', 'a{sv}', '', note('eject ' + name)), ('PowerOff', 'a{sv}', '', note('off ' + name))])
    for name, b in parameters['blocks'].items():
        path = MAIN_OBJ + '/block_devices/' + name
        drive = MAIN_OBJ + '/drives/' + b['drive'] if b['drive'] else '/'
        mock.AddObject(path, U + 'Block', {
            'Device': path_bytes('/dev/' + name), 'Drive': dbus.ObjectPath(drive), 'Size': dbus.UInt64(64),
            'Configuration': dbus.Array([], signature='(sa{sv})')}, [])
        if 'mounts' in b:
            import dbusmock
            o = dbusmock.get_object(path)
            o.AddProperties(U + 'Filesystem', {
                'MountPoints': dbus.Array([path_bytes(m) for m in b['mounts']], signature='ay')})
            o.AddMethods(U + 'Filesystem', [
                ('Unmount', 'a{sv}', '', "assert 'force' not in args[0]\n" + note('unmount ' + name, b.get('busy')))])
)";

TEST(Eject, UnmountsTheWholeDiskAndNeverMore) {
    VELMORA_NEEDS(PrivateBus::unavailable());
    constexpr const char* stick = R"({"ejectable":true,"removable":false,"off":true,"sibling":"usb-1"})";
    constexpr const char* slot = R"({"ejectable":true,"removable":true,"off":true,"sibling":"usb-2"})";
    constexpr const char* ssd = R"({"ejectable":false,"removable":false,"off":true,"sibling":""})";
    constexpr const char* twin = R"({"ejectable":false,"removable":false,"off":true,"sibling":"usb-3"})";
    constexpr const char* builtIn = R"({"ejectable":false,"removable":false,"off":false,"sibling":""})";
    const std::string drives = std::string("{\"stick\":") + stick + ",\"slot1\":" + slot + ",\"slot2\":" + slot +
                               ",\"ssd\":" + ssd + ",\"twin1\":" + twin + ",\"twin2\":" + twin +
                               ",\"builtin\":" + builtIn + "}";
    constexpr const char* blocks = R"({
        "sda":{"drive":"stick"}, "sda1":{"drive":"stick","mounts":["/media/ann/A"]},
        "sda2":{"drive":"stick","mounts":["/media/ann/B","/mnt/b"]}, "sda3":{"drive":"stick","mounts":[]},
        "sdb1":{"drive":"slot1","mounts":["/media/ann/C"]}, "sdc1":{"drive":"slot2","mounts":["/media/ann/D"]},
        "sdd1":{"drive":"ssd","mounts":["/media/ann/E"]},
        "sde1":{"drive":"twin1","mounts":["/media/ann/F"]}, "sdf1":{"drive":"twin2","mounts":["/media/ann/G"]},
        "sdg1":{"drive":"builtin","mounts":["/"],"busy":true},
        "loop7":{"drive":"","mounts":["/mnt/image"]}, "loop8":{"drive":"","mounts":["/mnt/other"]}})";
    PrivateBus bus;
    const std::string log = bus.folder() / "calls";
    bus.play("org.freedesktop.UDisks2", diskService,
             "{\"log\":\"" + log + "\",\"drives\":" + drives + ",\"blocks\":" + blocks + "}");
    const struct {
        const char* device;
        const char* calls;
        const char* problem;
    } cases[] = {
        // all partitions of the disk, one call for each mount; nothing else hangs on its plug
        {"/dev/sda1", "unmount sda1\nunmount sda2\nunmount sda2\neject stick\noff stick\n", ""},
        {"/dev/sdb1", "unmount sdb1\neject slot1\n", ""}, // the reader's other slot keeps its power
        {"/dev/sdd1", "unmount sdd1\noff ssd\n", ""},     // no medium to eject
        {"/dev/sde1", "unmount sde1\n", ""},              // its twin would go dark
        {"/dev/loop7", "unmount loop7\n", ""},            // not loop8, though both have no drive
        {"/dev/sdg1", "unmount sdg1\n", "Error unmounting: target is busy"},
        {"/dev/sdz1", "", "the disk of /dev/sdz1 is not known to the disk service"},
    };
    for (const auto& c : cases) {
        test::FileTree::write(log, "");
        EXPECT_EQ(Eject::disk(c.device).value_or(""), c.problem);
        EXPECT_EQ(test::FileTree::read(log), c.calls) << c.device;
    }
}

} // namespace
} // namespace velmora
