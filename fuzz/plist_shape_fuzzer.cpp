// Property lists shaped by the fuzzer's bytes rather than made of them: random bytes almost
// never nest a hundred thousand levels or share one object from a thousand places, which is
// what a hostile Info.plist does. Each byte is a step (open arrays or dictionaries by the
// thousand, close, add a leaf, widen, reference an earlier object, reference past the
// table); the first byte picks the encoding. Whatever is built must be refused or parse,
// and what parses must write back and read the same.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/plist/PlistFile.h"

namespace {

enum class Kind : uint8_t { Array, Dictionary, String, Integer };

// A child with this bit set is a plain reference (shared, backwards or out of range); only
// the binary encoding can say it, and the XML writer leaves it out.
constexpr uint32_t kReference = 0x80000000u;
constexpr size_t kMaxNodes = 200'000;
constexpr size_t kMaxEdges = 1'000'000;

struct Node {
  Kind kind;
  std::vector<uint32_t> children;
};

class Steps {
 public:
  Steps(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool done() const { return at_ >= size_; }
  uint8_t next() { return at_ < size_ ? data_[at_++] : 0; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

std::vector<Node> Build(Steps& steps) {
  std::vector<Node> nodes{{Kind::Array, {}}};
  std::vector<uint32_t> open{0};
  size_t edges = 0;
  const auto add = [&](uint32_t parent, uint32_t child) {
    if (edges++ < kMaxEdges) nodes[parent].children.push_back(child);
  };
  while (!steps.done() && nodes.size() < kMaxNodes && edges < kMaxEdges) {
    const uint8_t step = steps.next();
    const uint32_t parent = open.back();
    switch (step % 8) {
      case 0:
      case 1: {
        const Kind kind = step % 8 == 0 ? Kind::Array : Kind::Dictionary;
        const size_t levels = 1 + size_t{steps.next()} * (step & 0x80 ? 512 : 1);
        for (size_t i = 0; i < levels && nodes.size() < kMaxNodes; ++i) {
          const auto index = static_cast<uint32_t>(nodes.size());
          nodes.push_back({kind, {}});
          add(open.back(), index);
          open.push_back(index);
        }
        break;
      }
      case 2:
        for (size_t n = 1 + steps.next() % 16; n > 0 && open.size() > 1; --n) open.pop_back();
        break;
      case 3:
      case 4:
        add(parent, static_cast<uint32_t>(nodes.size()));
        nodes.push_back({step % 8 == 3 ? Kind::String : Kind::Integer, {}});
        break;
      case 5:  // an earlier object again: shared, or an ancestor (a cycle)
        add(parent, kReference | static_cast<uint32_t>((size_t{steps.next()} << 8 | steps.next()) %
                                                       nodes.size()));
        break;
      case 6: {  // the last child repeated, many times over
        if (nodes[parent].children.empty()) break;
        const uint32_t last = nodes[parent].children.back() | kReference;
        for (size_t n = size_t{steps.next()} * 64; n > 0; --n) add(parent, last);
        break;
      }
      default:  // past the end of the object table
        add(parent, kReference | static_cast<uint32_t>(nodes.size() + steps.next()));
        break;
    }
  }
  return nodes;
}

void Put(std::vector<uint8_t>& out, uint64_t value, int width) {
  for (int i = width - 1; i >= 0; --i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// Object i is node i; one more object, the key "k", is every dictionary's key.
std::vector<uint8_t> Binary(const std::vector<Node>& nodes) {
  std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint64_t> offsets;
  const auto key = static_cast<uint32_t>(nodes.size());
  for (const Node& node : nodes) {
    offsets.push_back(out.size());
    switch (node.kind) {
      case Kind::String: out.insert(out.end(), {0x53, 'a', 'b', 'c'}); break;
      case Kind::Integer: out.push_back(0x13), Put(out, offsets.size(), 8); break;
      case Kind::Array:
      case Kind::Dictionary: {
        const bool dict = node.kind == Kind::Dictionary;
        out.push_back(dict ? 0xDF : 0xAF);
        out.push_back(0x12);
        Put(out, node.children.size(), 4);
        if (dict) {
          for (size_t i = 0; i < node.children.size(); ++i) Put(out, key, 4);
        }
        for (uint32_t child : node.children) Put(out, child & ~kReference, 4);
        break;
      }
    }
  }
  offsets.push_back(out.size());
  out.insert(out.end(), {0x51, 'k'});
  const uint64_t table = out.size();
  for (uint64_t offset : offsets) Put(out, offset, 4);
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, 4});
  Put(out, offsets.size(), 8);
  Put(out, 0, 8);
  Put(out, table, 8);
  return out;
}

// Written without recursion: the tree may be as deep as it has nodes.
std::vector<uint8_t> XML(const std::vector<Node>& nodes) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">";
  struct Level {
    uint32_t node;
    size_t next;
  };
  std::vector<Level> open{{0, 0}};
  out += "<array>";
  while (!open.empty()) {
    Level& level = open.back();
    const Node& node = nodes[level.node];
    if (level.next == node.children.size()) {
      out += node.kind == Kind::Dictionary ? "</dict>" : "</array>";
      open.pop_back();
      continue;
    }
    const uint32_t child = node.children[level.next++];
    if (child & kReference) continue;
    if (node.kind == Kind::Dictionary) out += "<key>k</key>";
    switch (nodes[child].kind) {
      case Kind::String: out += "<string>abc</string>"; break;
      case Kind::Integer: out += "<integer>7</integer>"; break;
      case Kind::Array:
      case Kind::Dictionary:
        out += nodes[child].kind == Kind::Dictionary ? "<dict>" : "<array>";
        open.push_back({child, 0});
        break;
    }
  }
  out += "</plist>";
  return std::vector<uint8_t>(out.begin(), out.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  Steps steps(data + 1, size - 1);
  const std::vector<Node> nodes = Build(steps);
  const std::vector<uint8_t> bytes = data[0] & 1 ? Binary(nodes) : XML(nodes);
  auto value = vx::ParsePropertyList(bytes);
  if (!value) return 0;
  auto again = vx::ParsePropertyList(vx::SerializePropertyList(*value, vx::PlistFormat::XML));
  if (!again) __builtin_trap();
  (void)vx::Describe(*again);
  return 0;
}
