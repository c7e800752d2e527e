#pragma once

#include <string>

namespace velmora {

// Three ways to rename without ever replacing, best first. IO::renameNoReplace tries them in this order and goes on to
// the next only when the file system has no such call. Each returns 0 or an errno and leaves the names as they were
// when it fails.
namespace RenameNoReplace {

// renameat2(RENAME_NOREPLACE): one step. NFS and most FUSE daemons answer EINVAL or ENOSYS.
int byKernel(const std::string& from, const std::string& to) noexcept;

// link, then unlink: the new name appears whole or not at all; a crash between the two leaves both names on the same
// file, which loses nothing. exFAT and FAT have no links (EPERM, ENOSYS, EOPNOTSUPP), nor have folders.
int byLink(const std::string& from, const std::string& to) noexcept;

// An exclusive create takes the target name, then a plain rename replaces that empty placeholder. Others who create
// exclusively are kept out, but a crash between the two steps leaves an empty file (or folder) under the final name,
// beside the whole file under its old name. Nothing that calls a file complete is written before the rename returned,
// so a later run finds an unfinished file there, not a false one.
int byPlaceholder(const std::string& from, const std::string& to) noexcept;

} // namespace RenameNoReplace

} // namespace velmora
