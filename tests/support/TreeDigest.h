// Everything a tree holds, as text: one line per entry with its name, type and mode, owner,
// size, modification time, extended attributes, and a hash of a file's bytes or a link's
// target. Two trees (or one tree at two moments) are the same when their texts are. Nothing
// but regular files is opened, and those without following a link or waiting on a FIFO.
#pragma once

#include <map>
#include <string>

namespace vx::test {

std::string TreeDigest(const std::string& root);

// How many regular files below `dir` hold each content (links not followed): the user's bytes
// a migration must keep, wherever it puts it. Left out: bundles and their store record (the
// installation takes them, or turns an older copy of a built-in application away by design)
// and the old root's notice, which is the system's own.
using FileContents = std::map<std::string, int>;
FileContents ContentsOfFiles(const std::string& dir);
// The first content `before` holds more often than `after`, shortened, or "" when none.
std::string FirstLostContent(const FileContents& before, const FileContents& after);

}  // namespace vx::test
