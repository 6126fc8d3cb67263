#include "platform/plist/PlistBounds.h"

#include <array>
#include <cstring>
#include <string_view>
#include <vector>

namespace vx {
namespace {

constexpr std::string_view kBinaryMagic = "bplist00";
constexpr size_t kTrailerSize = 32;

class Verdict {
 public:
  Verdict(std::string* reason, size_t maxDepth, size_t maxObjects)
      : reason_(reason), maxDepth_(maxDepth), maxObjects_(maxObjects) {}
  bool Fail(std::string why) const {
    if (reason_) *reason_ = std::move(why);
    return false;
  }
  // An object inside `depth` open levels.
  bool CountObject(size_t depth) {
    if (++objects_ > maxObjects_) return Fail("more than " + std::to_string(maxObjects_) + " objects");
    levels_ += depth;
    return levels_ <= kMaxPropertyListLevelsInAll ||
           Fail("more than " + std::to_string(kMaxPropertyListLevelsInAll) +
                " levels of nesting in all");
  }
  // Called with the number of levels already open.
  bool OpenLevel(size_t open) const {
    return open < maxDepth_ || Fail("nesting deeper than " + std::to_string(maxDepth_));
  }

 private:
  std::string* reason_;
  size_t maxDepth_;
  size_t maxObjects_;
  size_t objects_ = 0;
  size_t levels_ = 0;
};

uint64_t BigEndian(const uint8_t* p, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = value << 8 | p[i];
  return value;
}

// The binary encoding: objects, then a table of their offsets, then a trailer naming the
// table, the widths of offsets and references, the object count and the top object.
// Containers hold references (indexes into the table); a dictionary its keys' and then its
// values'.
class BinaryList {
 public:
  explicit BinaryList(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  bool ReadTrailer() {
    if (bytes_.size() < kBinaryMagic.size() + kTrailerSize) return false;
    const uint8_t* trailer = bytes_.data() + bytes_.size() - kTrailerSize;
    offsetWidth_ = trailer[6];
    refWidth_ = trailer[7];
    count_ = BigEndian(trailer + 8, 8);
    top_ = BigEndian(trailer + 16, 8);
    table_ = BigEndian(trailer + 24, 8);
    const uint64_t tableEnd = bytes_.size() - kTrailerSize;
    return offsetWidth_ >= 1 && offsetWidth_ <= 8 && refWidth_ >= 1 && refWidth_ <= 8 &&
           table_ >= kBinaryMagic.size() && table_ < tableEnd && count_ >= 1 &&
           count_ <= (tableEnd - table_) / offsetWidth_;
  }

  uint64_t count() const { return count_; }
  uint64_t top() const { return top_; }
  size_t refWidth() const { return refWidth_; }
  uint64_t Reference(size_t at) const { return BigEndian(bytes_.data() + at, refWidth_); }

  // Where object `index` (< count) begins: inside the object area, or nothing.
  bool Offset(uint64_t index, size_t* offset) const {
    const uint64_t at = BigEndian(bytes_.data() + table_ + index * offsetWidth_, offsetWidth_);
    if (at < kBinaryMagic.size() || at >= table_) return false;
    *offset = static_cast<size_t>(at);
    return true;
  }

  enum class Shape { Leaf, Container, Malformed };
  // For an array, set or dictionary, where its references begin and how many there are,
  // all of them proven to lie in the object area.
  Shape Children(size_t offset, size_t* refs, uint64_t* n) const {
    const uint8_t marker = bytes_[offset];
    const uint8_t type = marker >> 4;
    if (type != 0xA && type != 0xC && type != 0xD) return Shape::Leaf;
    uint64_t length = marker & 0xF;
    size_t at = offset + 1;
    if (length == 0xF) {  // the length follows as an integer object
      if (at >= table_) return Shape::Malformed;
      const uint8_t lengthMarker = bytes_[at++];
      if ((lengthMarker >> 4) != 0x1 || (lengthMarker & 0xF) > 3) return Shape::Malformed;
      const size_t width = size_t{1} << (lengthMarker & 0xF);
      if (table_ - at < width) return Shape::Malformed;
      length = BigEndian(bytes_.data() + at, width);
      at += width;
    }
    const uint64_t perEntry = type == 0xD ? 2 : 1;
    if (length > (table_ - at) / refWidth_ / perEntry) return Shape::Malformed;
    *refs = at;
    *n = length * perEntry;
    return Shape::Container;
  }

 private:
  std::span<const uint8_t> bytes_;
  size_t offsetWidth_ = 0;
  size_t refWidth_ = 0;
  uint64_t count_ = 0;
  uint64_t top_ = 0;
  uint64_t table_ = 0;
};

// Depth first with a stack of its own, each object counted once per reference to it (the
// parser copies a shared object wherever it is referenced). An object referenced from
// inside itself is a cycle.
bool CheckBinary(std::span<const uint8_t> bytes, Verdict& verdict) {
  BinaryList list(bytes);
  if (!list.ReadTrailer()) return verdict.Fail("a malformed binary property list");
  struct Level {
    uint64_t object;
    size_t refs;
    uint64_t n;
    uint64_t next;
  };
  std::vector<Level> open;
  // The trailer check bounds the count by the file's size.
  std::vector<bool> onPath(static_cast<size_t>(list.count()));
  const auto enter = [&](uint64_t index) {
    if (index >= list.count()) return verdict.Fail("a reference out of range");
    if (onPath[index]) return verdict.Fail("a reference cycle");
    if (!verdict.CountObject(open.size())) return false;
    size_t offset = 0, refs = 0;
    uint64_t n = 0;
    if (!list.Offset(index, &offset)) return verdict.Fail("an object offset out of range");
    switch (list.Children(offset, &refs, &n)) {
      case BinaryList::Shape::Leaf: return true;
      case BinaryList::Shape::Malformed: return verdict.Fail("a malformed container");
      case BinaryList::Shape::Container: break;
    }
    if (!verdict.OpenLevel(open.size())) return false;
    onPath[index] = true;
    open.push_back({index, refs, n, 0});
    return true;
  };
  if (!enter(list.top())) return false;
  while (!open.empty()) {
    Level& level = open.back();
    if (level.next == level.n) {
      onPath[level.object] = false;
      open.pop_back();
      continue;
    }
    const uint64_t child = list.Reference(level.refs + level.next * list.refWidth());
    ++level.next;
    if (!enter(child)) return false;
  }
  return true;
}

bool IsLeafElement(std::string_view name) {
  static constexpr std::array<std::string_view, 8> kLeaves = {
      "key", "string", "integer", "real", "date", "data", "true", "false"};
  for (std::string_view leaf : kLeaves) {
    if (name == leaf) return true;
  }
  return false;
}

// One pass over the tags. Every element counts as an object; every element that is not a
// value's leaf opens a level (so an unknown name is taken to nest, never the reverse), and
// its end tag closes one. The outermost "plist" element wraps the value and is neither: a
// list must count the same in both encodings, or one written back from the other could be
// refused. Comments, sections of character data, declarations and
// processing instructions are stepped over whole, as the parser does.
bool CheckXML(std::string_view text, Verdict& verdict) {
  size_t depth = 0;
  size_t at = 0;
  while ((at = text.find('<', at)) != std::string_view::npos) {
    const std::string_view rest = text.substr(at);
    std::string_view skipTo;
    if (rest.starts_with("<!--")) {
      skipTo = "-->";
    } else if (rest.starts_with("<![CDATA[")) {
      skipTo = "]]>";
    } else if (rest.starts_with("<?")) {
      skipTo = "?>";
    } else if (rest.starts_with("<!")) {
      skipTo = ">";
    }
    if (!skipTo.empty()) {
      const size_t end = text.find(skipTo, at + 2);
      if (end == std::string_view::npos) return true;  // unterminated: the parser refuses it
      at = end + skipTo.size();
      continue;
    }
    const bool closing = rest.size() > 1 && rest[1] == '/';
    const size_t nameStart = at + (closing ? 2 : 1);
    const size_t end = text.find('>', nameStart);
    if (end == std::string_view::npos) return true;
    const std::string_view tag = text.substr(nameStart, end - nameStart);
    const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
    const bool leaf = IsLeafElement(name);
    if (depth == 0 && name == "plist") {
      at = end + 1;
      continue;
    }
    if (closing) {
      if (!leaf && depth > 0) --depth;
    } else {
      if (!verdict.CountObject(depth)) return false;
      const bool empty = text[end - 1] == '/';
      if (!leaf && !empty) {
        if (!verdict.OpenLevel(depth)) return false;
        ++depth;
      }
    }
    at = end + 1;
  }
  return true;
}

}  // namespace

bool CheckPropertyListBounds(std::span<const uint8_t> bytes, std::string* reason,
                             size_t maxDepth, size_t maxObjects) {
  Verdict verdict(reason, maxDepth, maxObjects);
  if (bytes.size() >= kBinaryMagic.size() &&
      std::memcmp(bytes.data(), kBinaryMagic.data(), kBinaryMagic.size()) == 0) {
    return CheckBinary(bytes, verdict);
  }
  return CheckXML(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                  verdict);
}

}  // namespace vx
