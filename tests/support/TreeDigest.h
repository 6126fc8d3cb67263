// Everything a tree holds, as text: one line per entry with its name, type and mode, owner,
// size, modification time, extended attributes, and a hash of a file's bytes or a link's
// target. Two trees (or one tree at two moments) are the same when their texts are. Nothing
// but regular files is opened, and those without following a link or waiting on a FIFO.
#pragma once

#include <string>

namespace vx::test {

std::string TreeDigest(const std::string& root);

}  // namespace vx::test
