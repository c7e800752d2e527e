#pragma once

#include <string>
#include <string_view>

namespace velmora::test {

// A fresh empty folder below $TMPDIR or /tmp; gone with everything in it when the object goes.
class TempFolder {
public:
    TempFolder();
    // Below another folder: "/dev/shm" lies on a volume of its own, as a card does.
    explicit TempFolder(const std::string& below);
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

private:
    std::string path_;
};

} // namespace velmora::test
