// The pieces of the tree copier that make one item of the copy: a regular file with its
// data, a symbolic link, a FIFO or device node, a hard link to a copy made before, and the
// metadata of any of them. The one-worker and the many-worker copies share them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>

#include "platform/files/Beneath.h"
#include "platform/files/FileIdentity.h"
#include "platform/files/UniqueFd.h"

namespace vx::clone {

using Identity = FileIdentity;
using vx::IdentityOf;
using vx::OpenDirectoryAt;

// Copies the bytes of `src` into `dst`: shared blocks where the file system can, else in the
// kernel, else by reads and writes. Returns 0 or an errno. `noReflink`, when given, remembers
// for the rest of a copy that the file system cannot share blocks, sparing the attempt.
int CopyData(int src, int dst, std::atomic<bool>* noReflink = nullptr);

// Owner, attributes, mode and times of `st` (the source's) onto `dst`, as `flags` ask.
int CopyMetadata(int src, int dst, const struct stat& st, unsigned flags);

// Makes a non-directory under `name`. When something is there already, the item is made
// under a temporary name and renamed over it, so that what is replaced stays until a whole
// copy stands in its place. `make(name)` returns 0 or an errno and cleans up after itself.
int Place(int dirfd, const std::string& name, const std::function<int(const std::string&)>& make);

// Copies the regular file open as `src` (status `st`) to `dstName` in `dstDir`.
int CopyRegularTo(int src, const struct stat& st, int dstDir, const std::string& dstName,
                  unsigned flags, std::atomic<bool>* noReflink);

// Copies the link `srcName` in `srcDir` (status `st`) as a link.
int CopyLink(int srcDir, const std::string& srcName, int dstDir, const std::string& dstName,
             const struct stat& st, unsigned flags);

// Makes a FIFO or device node like the one of status `st`; a socket fails with ENOTSUP.
int MakeSpecial(int dstDir, const std::string& dstName, const struct stat& st, unsigned flags);

// Links `dstName` in `dstDir` to the copy made before at `relativePath` beneath `dstRoot`,
// proven to be the item of identity `made`; ESTALE when it is not there any more.
int LinkToCopy(int dstRoot, const std::string& relativePath, const Identity& made, int dstDir,
               const std::string& dstName);
// The same, the copy being `name` in the open directory `parent` of the copy.
int LinkToCopyIn(int parent, const std::string& name, const Identity& made, int dstDir,
                 const std::string& dstName);

// Copies the directory `srcName` in `srcDir` to `dstName` in `dstDir` with `workers`
// threads; what clonetree does for a directory, with the same result.
int CloneDirectoryInParallel(int srcDir, const std::string& srcName, int dstDir,
                             const std::string& dstName, unsigned flags, unsigned workers);

}  // namespace vx::clone
