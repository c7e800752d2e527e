#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

// A file that only ever grows at its end, read and written through the page cache. Not thread-safe.
class AppendFile {
public:
    // Opens or creates it (mode 0644), following no link in the last component. Throws IOError("open", …).
    explicit AppendFile(const std::string& path);
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    bool created() const noexcept { return created_; } // it did not exist: its folder has to be flushed, too
    std::optional<char> lastByte() const;              // empty for an empty file; throws IOError("stat", "read")
    void append(std::string_view bytes);               // throws IOError("write", …); part of it may have been written
    void flush();                                      // on the medium, length included; throws IOError("fsync", …)
    void close();                                      // throws IOError("close", …)

private:
    std::string path_;
    int fd_ = -1;
    bool created_ = false;
};

} // namespace velmora
