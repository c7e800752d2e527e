#include "platform/linux/MountTable.h"

#include "base/Errors.h"
#include "base/Mutex.h"
#include "platform/IO.h"
#include "platform/linux/BlockDevice.h"
#include "platform/linux/Descriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <libmount/libmount.h>
#include <memory>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velmora {

namespace {

struct Release {
    void operator()(libmnt_table* table) const { mnt_unref_table(table); }
    void operator()(libmnt_iter* iter) const { mnt_free_iter(iter); }
};

std::string text(const char* value) { return value == nullptr ? "" : value; }

// A line that cannot be parsed is skipped: a strange mount must not hide the others.
int skipBadLine(libmnt_table*, const char*, int) { return 1; }

bool isNetwork(libmnt_fs* fs) {
    if (mnt_fs_is_netfs(fs) != 0)
        return true;
    // libmount does not count what a FUSE daemon fetches from elsewhere.
    const std::string type = text(mnt_fs_get_fstype(fs));
    for (const std::string_view remote : {"fuse.sshfs", "fuse.rclone", "fuse.davfs", "fuse.gvfsd-fuse", "fuse.smbnetfs",
                                          "fuse.s3fs", "fuse.glusterfs", "fuse.ceph-fuse", "davfs", "glusterfs"})
        if (type == remote)
            return true;
    return false;
}

// The system's table, parsed again only when the kernel says that it has changed.
class SystemTable {
public:
    // Shared, for the caller may still look at it while another thread finds it changed.
    std::shared_ptr<const std::vector<MountEntry>> current() EXCLUDES(mutex_) {
        const MutexLock held(mutex_);
        return newest();
    }
    // For a mount that the table does not hold: a program that has moved to other mounts (unshare) hears of changes to
    // the old ones only.
    std::shared_ptr<const std::vector<MountEntry>> reopened() EXCLUDES(mutex_) {
        const MutexLock held(mutex_);
        owner_ = 0;
        return newest();
    }

private:
    std::shared_ptr<const std::vector<MountEntry>> newest() REQUIRES(mutex_) {
        // A forked child shares the descriptor with its parent, and each would take the other's change events.
        if (!changes_ || owner_ != ::getpid()) {
            changes_ = Descriptor(::open(MountTable::systemTable, O_RDONLY | O_CLOEXEC));
            owner_ = ::getpid();
            entries_.reset();
        }
        pollfd news{changes_.get(), POLLPRI, 0};
        // One event covers all changes so far, so the table is read after it.
        const bool unchanged = changes_ && ::poll(&news, 1, 0) == 0;
        if (!unchanged || !entries_)
            entries_ = std::make_shared<const std::vector<MountEntry>>(MountTable::read());
        return entries_;
    }

    Mutex mutex_;
    Descriptor changes_ GUARDED_BY(mutex_);
    pid_t owner_ GUARDED_BY(mutex_) = 0;
    std::shared_ptr<const std::vector<MountEntry>> entries_ GUARDED_BY(mutex_);
};

SystemTable& systemEntries() {
    static SystemTable table;
    return table;
}

} // namespace

bool MountTable::isAtOrBelow(std::string_view path, std::string_view folder) {
    if (folder == "/")
        return true;
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::vector<MountEntry> MountTable::read(const std::string& mountinfo) {
    const std::unique_ptr<libmnt_table, Release> table(mnt_new_table());
    const std::unique_ptr<libmnt_iter, Release> iter(mnt_new_iter(MNT_ITER_FORWARD));
    if (table == nullptr || iter == nullptr)
        throw IOError("mounts", mountinfo, ENOMEM);
    mnt_table_set_parser_errcb(table.get(), skipBadLine);
    errno = 0;
    if (mnt_table_parse_file(table.get(), mountinfo.c_str()) != 0)
        throw IOError("mounts", mountinfo, errno == 0 ? EINVAL : errno);
    std::vector<MountEntry> entries;
    for (libmnt_fs* fs = nullptr; mnt_table_next_fs(table.get(), iter.get(), &fs) == 0;) {
        MountEntry entry;
        entry.id = mnt_fs_get_id(fs);
        entry.mountPoint = text(mnt_fs_get_target(fs));
        entry.device = text(mnt_fs_get_source(fs));
        entry.type = text(mnt_fs_get_fstype(fs));
        entry.root = text(mnt_fs_get_root(fs));
        entry.deviceNumber = mnt_fs_get_devno(fs);
        entry.network = isNetwork(fs);
        entry.pseudo = mnt_fs_is_pseudofs(fs) != 0;
        entry.readOnly = mnt_fs_match_options(fs, "ro") != 0;
        if (!entry.mountPoint.empty() && entry.mountPoint.front() == '/')
            entries.push_back(std::move(entry));
    }
    return entries;
}

std::optional<MountEntry> MountTable::entryOf(const std::vector<MountEntry>& table, std::string_view realPath) {
    const MountEntry* best = nullptr;
    for (const MountEntry& entry : table)
        if (isAtOrBelow(realPath, entry.mountPoint) &&
            (best == nullptr || entry.mountPoint.size() >= best->mountPoint.size()))
            best = &entry;
    return best == nullptr ? std::nullopt : std::optional(*best);
}

std::optional<MountEntry> MountTable::entryOf(const std::string& path) {
    const std::string real = IO::realPath(path);
    auto table = systemEntries().current();
    struct statx info{};
    if (::statx(AT_FDCWD, real.c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &info) == 0 &&
        (info.stx_mask & STATX_MNT_ID) != 0) {
        const auto isIt = [&](const MountEntry& entry) {
            return static_cast<std::uint64_t>(entry.id) == info.stx_mnt_id;
        };
        for (const bool again : {false, true}) {
            if (again)
                table = systemEntries().reopened();
            if (const auto found = std::ranges::find_if(*table, isIt); found != table->end())
                return *found;
        }
    }
    return entryOf(*table, real);
}

std::string MountTable::filesystemType(const MountEntry& entry) {
    std::string type = entry.type;
    if (type == "fuseblk") {
        const BlockDevice::Identity identity = BlockDevice::identify(entry.device);
        if (!identity.type.empty())
            type = identity.type;
    }
    if (type == "vfat" || type == "msdos" || type == "umsdos" || type == "fuse.fusefat")
        return "msdos";
    if (type == "ntfs3" || type == "fuse.ntfs" || type == "fuse.ntfs-3g")
        return "ntfs";
    if (type == "fuse.exfat" || type == "fuse.exfat-fuse")
        return "exfat";
    return type;
}

std::string IO::filesystemType(const std::string& path) try {
    const auto entry = MountTable::entryOf(path);
    return entry ? MountTable::filesystemType(*entry) : "?";
} catch (const IOError&) {
    return "?";
}

} // namespace velmora
