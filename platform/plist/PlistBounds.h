// The shape of a property list, measured before it is parsed. The parser beneath us recurses
// once per level of nesting (and so does freeing what it built), and a binary list may
// reference one object from many places, so a small hostile file can exhaust the stack or
// expand into billions of nodes. This look at the raw bytes recurses nowhere and bounds what
// it walks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace vx {

// No information list, preference or record of ours comes near either bound: real lists
// nest a handful of levels deep, and the largest (the workspace's register of a device of
// ten thousand applications) holds a few hundred thousand objects at most. A list past them
// was made to hurt the reader.
inline constexpr size_t kMaxPropertyListDepth = 256;
inline constexpr size_t kMaxPropertyListObjects = 500'000;
// Each object's depth summed over all objects: what the list weighs once written back as
// indented text. Deep and wide at once (a subtree at level 250 referenced ten thousand times)
// stays under both bounds above yet writes out as hundreds of megabytes of indentation.
inline constexpr size_t kMaxPropertyListLevelsInAll = 4'000'000;

// False, with the reason in `reason` ("nesting deeper than 256", "more than 500000
// objects", ...), when the list nests too deep, holds too many objects (a binary list's
// objects counted once per reference, as the parser expands them), nests many of them
// deep, or, in the binary
// encoding, references outside itself or in a cycle. True says nothing of whether the list
// is otherwise well formed: the parser judges that.
bool CheckPropertyListBounds(std::span<const uint8_t> bytes, std::string* reason,
                             size_t maxDepth = kMaxPropertyListDepth,
                             size_t maxObjects = kMaxPropertyListObjects);

}  // namespace vx
