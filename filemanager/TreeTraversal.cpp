// A physical walk over a tree that hands every entry to a visitor.
#include <fts.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "filemanager/VXFileManager.h"
#include "support/errors/ErrorMakers.h"

namespace vx {
namespace {

constexpr const char* kTraverse = "-[VXFileManager _traverseDirectory:error:withBlock:]";

struct FtsCloser {
  void operator()(FTS* fts) const { ::fts_close(fts); }
};
using UniqueFts = std::unique_ptr<FTS, FtsCloser>;

TraversalEntry::Kind KindOf(unsigned short info) {
  using Kind = TraversalEntry::Kind;
  switch (info) {
    case FTS_D: return Kind::DirectoryPre;
    case FTS_DP: return Kind::DirectoryPost;
    case FTS_F: return Kind::File;
    case FTS_SL: return Kind::Symlink;
    case FTS_SLNONE: return Kind::DanglingSymlink;
    case FTS_DNR: return Kind::UnreadableDirectory;
    case FTS_DC: return Kind::Cycle;
    case FTS_ERR: return Kind::Error;
    case FTS_NS: return Kind::NoStat;
    default: return Kind::Other;
  }
}

TraversalEntry EntryOf(const FTSENT& ent) {
  TraversalEntry entry;
  entry.path = ent.fts_path;
  entry.kind = KindOf(ent.fts_info);
  entry.error = ent.fts_errno;
  if (ent.fts_statp) {
    entry.mode = ent.fts_statp->st_mode;
    entry.uid = ent.fts_statp->st_uid;
    entry.gid = ent.fts_statp->st_gid;
  }
  return entry;
}

}  // namespace

bool VXFileManager::_traverseDirectory(const FileURL& root, ErrorRef* error,
                                       const TraversalVisitor& visitor) const {
  const std::string& rootPath = root.path();
  char* roots[] = {const_cast<char*>(rootPath.c_str()), nullptr};
  // Physical: links are reported, never followed. No chdir: the visitor gets usable paths
  // and the process's directory stays put. XDEV: another file system below is not ours.
  UniqueFts fts(::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr));
  if (!fts) {
    SetError(error, PosixError(kTraverse, __LINE__, errno, "fts_open failed for %s with error %s",
                               rootPath, std::strerror(errno)));
    return false;
  }

  bool result = true;
  ErrorRef recorded;
  for (;;) {
    errno = 0;
    FTSENT* ent = ::fts_read(fts.get());
    if (!ent) {
      // A walk that ended early must not pass for a complete one: whoever relies on it
      // (ownership normalisation checks every link) would miss the rest of the tree.
      if (errno != 0) {
        recorded = PosixError(kTraverse, __LINE__, errno, "Error for path %s: %s", rootPath,
                              std::strerror(errno));
        result = false;
      }
      break;
    }
    if (ent->fts_info == FTS_ERR || ent->fts_info == FTS_NS) {
      recorded = PosixError(kTraverse, __LINE__, ent->fts_errno, "Error for path %s: %s",
                            rootPath, std::strerror(ent->fts_errno));
      result = false;
      break;
    }
    ErrorRef visitorError;
    if (!visitor(EntryOf(*ent), &visitorError)) {
      recorded = std::move(visitorError);
      result = false;
      break;
    }
  }

  if (::fts_close(fts.release()) != 0) {
    const int closeError = errno;
    result = false;
    if (!recorded) {
      recorded = PosixError(kTraverse, __LINE__, closeError,
                            "fts_close failed for %s with error %s", rootPath,
                            std::strerror(closeError));
    }
  }
  if (!result && recorded) SetError(error, std::move(recorded));
  return result;
}

}  // namespace vx
