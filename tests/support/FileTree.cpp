#include "support/FileTree.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace velmora::test::FileTree {

namespace fs = std::filesystem;

namespace {

// SplitMix64: small, and good enough that no two blocks look alike.
std::uint64_t next(std::uint64_t& state) {
    std::uint64_t z = state += 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

void demand(bool ok, const std::string& what) {
    if (!ok)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

void setModified(const std::string& path, std::int64_t seconds) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {seconds, 0}};
    demand(::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, path);
}

} // namespace

std::string bytes(std::uint64_t seed, std::size_t count) {
    std::string out(count, '\0');
    std::uint64_t state = seed;
    for (std::size_t at = 0; at < count; at += 8) {
        const std::uint64_t value = next(state);
        std::memcpy(out.data() + at, &value, std::min<std::size_t>(8, count - at));
    }
    return out;
}

void write(const std::string& path, std::string_view content, std::int64_t modified) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    demand(file.good(), path);
    if (modified != 0)
        setModified(path, modified);
}

std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    demand(file.good(), path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void flipBit(const std::string& path, std::int64_t offset, int bit) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    demand(fd >= 0, path);
    struct stat info{};
    char byte = 0;
    bool ok = ::fstat(fd, &info) == 0 && ::pread(fd, &byte, 1, offset) == 1;
    byte = static_cast<char>(byte ^ (1 << bit));
    const struct timespec times[2] = {info.st_atim, info.st_mtim};
    ok = ok && ::pwrite(fd, &byte, 1, offset) == 1 && ::fsync(fd) == 0 && ::futimens(fd, times) == 0 &&
         ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0;
    ::close(fd);
    demand(ok, path);
}

void make(const std::string& root, const std::vector<File>& files, std::uint64_t seed) {
    constexpr std::int64_t morning = 1773475200; // 2026-03-14 08:00:00 UTC
    std::int64_t index = 0;
    for (const File& file : files) {
        const std::string path = root + "/" + file.path;
        if (file.path.ends_with('/'))
            fs::create_directories(path);
        else
            write(path, bytes(seed * 1000003 + std::hash<std::string>()(file.path), file.size), morning + 60 * index);
        ++index;
    }
}

std::map<std::string, std::string> contents(const std::string& root) {
    std::map<std::string, std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path().lexically_relative(root);
        if (entry.is_symlink())
            found[path] = "-> " + fs::read_symlink(entry.path()).string();
        else if (entry.is_directory())
            found[path + "/"] = "/";
        else
            found[path] = read(entry.path());
    }
    return found;
}

} // namespace velmora::test::FileTree
