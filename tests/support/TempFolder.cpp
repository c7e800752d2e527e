#include "support/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace velmora::test {

namespace {

std::string usualPlace() {
    const char* base = std::getenv("TMPDIR");
    return base != nullptr && *base != '\0' ? base : "/tmp";
}

} // namespace

TempFolder::TempFolder() : TempFolder(usualPlace()) {}

TempFolder::TempFolder(const std::string& below) : path_(below + "/velmora-test-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr)
        throw std::runtime_error("mkdtemp " + path_);
}

TempFolder::~TempFolder() {
    namespace fs = std::filesystem;
    std::error_code none;
    if (fs::remove_all(path_, none); !none)
        return;
    // A test may have taken rights away from a folder.
    for (fs::recursive_directory_iterator at(path_, none), end; !none && at != end; at.increment(none))
        if (at->is_directory(none) && !at->is_symlink(none))
            fs::permissions(at->path(), fs::perms::owner_all, fs::perm_options::add, none);
    fs::remove_all(path_, none);
}

} // namespace velmora::test
