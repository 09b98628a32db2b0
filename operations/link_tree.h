// Staging by hard link: putting an item that is already on the device into a
// staging area without copying its data.
#pragma once

#include <string>

namespace vtl::files {

// Hard-links the item at `source` to the new path `destination`, whose
// parent must exist and which must not exist yet (EEXIST otherwise, whatever
// is there, a dangling link included).
//   - Anything but a directory becomes one hard link to the same inode.
//   - A directory becomes a new directory tree at `destination`: every
//     directory is created anew (with its source's owner, group and permission
//     bits, applied once its entries are in, so that a read-only directory can
//     still be filled), and every other item inside it, whatever its type, is
//     hard-linked: regular files, and also symbolic links (the link itself, so
//     it keeps its target, owner and inode and is never followed), FIFOs,
//     sockets and device nodes (a second name for the same node, with the
//     same permissions; nothing is opened). The staged tree is thus the source
//     tree, item for item, sharing every inode but the directories'.
// Nothing is followed: a link given as `source` is linked itself, and the
// tree is walked and built through directory descriptors, so that a
// directory swapped for a link on either side mid-way is refused (ELOOP or
// ENOTDIR), not entered. Extended attributes, dates and protection classes of
// new directories are left to the attribute restore that follows staging.
// On failure whatever was created at `destination` is removed again, so the
// call can be retried. Returns 0 or an errno value.
int link_item(const std::string& source, const std::string& destination);

}  // namespace vtl::files
