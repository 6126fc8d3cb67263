// A copy that stands in for a move across file systems: made from descriptors only, and on
// disk (every file, every directory, and the copy's name) before the caller may remove the
// source, so that a power cut can never leave a source gone and its copy empty.
#pragma once

#include <sys/stat.h>

namespace vx {

// Copies the item `name` in `srcDir` (a link as a link) to `dstName` in `dstDir` with the
// tree copier's `flags`, then syncs the copy: its files, its directories, then `dstDir`.
// The item is opened once, without following it, and copied from that descriptor: when
// `checked` is given it must still be the item that status describes, or nothing is copied
// (ESTALE). Returns 0 or an errno; a failed copy may leave a partial destination.
int CopyItemDurably(int srcDir, const char* name, const struct stat* checked, int dstDir,
                    const char* dstName, unsigned flags);

// Syncs `name` in `dir` and, for a directory, everything beneath it (no link followed),
// each directory after the files it holds. Returns 0 or an errno.
int SyncItemTree(int dir, const char* name);

}  // namespace vx
