#pragma once

#include "base/Errors.h"

#include <optional>
#include <stdexcept>
#include <string>

namespace velmora {

// Finished proxies on their way to where they stay.
namespace ProxyCopy {

// The name is in use already.
class Taken : public std::runtime_error {
public:
    explicit Taken(const std::string& path) : std::runtime_error("the name is taken: " + path) {}
};

// Throws Taken when `to` exists, IOError("rename") on any other failure; both files are then unchanged.
void renameNoReplace(const std::string& from, const std::string& to);

// Creates the folders, copies to "{to}.part" and renames. Throws Taken if `to` exists, unless `replace`; also IOError
// and Cancelled. After a throw the part is gone. A part that a killed copy left is overwritten.
void copyFile(const std::string& from, const std::string& to, bool replace, const IsCancelled& isCancelled = {});

struct Placed {
    std::optional<std::string> path;
    std::optional<std::string> error;
};
// Copies a proxy to {extra}/{date}/{cardName}/{file}, or under the first free number.
Placed toExtraFolder(const std::string& extra, const std::string& proxy, const std::string& date,
                     const std::string& cardName, const std::string& file, int maxAttempts,
                     const IsCancelled& isCancelled = {});

} // namespace ProxyCopy

} // namespace velmora
