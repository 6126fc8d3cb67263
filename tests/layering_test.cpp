// The source tree's folders stand in layers: an include between two folders runs one way only,
// so that each folder can be read, tested and replaced knowing only what lies below it. A
// sub-folder is a folder of its own. This walks the sources as text and fails on the first
// cycle, naming it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Graph = std::map<std::string, std::set<std::string>>;

Graph IncludeGraph(const fs::path& root) {
  Graph graph;
  for (const char* top : {"AppMigrator", "configuration", "filemanager", "support", "platform", "host"}) {
    for (const auto& entry : fs::recursive_directory_iterator(root / top)) {
      const std::string extension = entry.path().extension().string();
      if (!entry.is_regular_file() || (extension != ".h" && extension != ".cpp")) continue;
      const std::string folder = entry.path().parent_path().lexically_relative(root).string();
      std::ifstream in(entry.path());
      for (std::string line; std::getline(in, line);) {
        if (line.rfind("#include \"", 0) != 0) continue;
        const std::string target = line.substr(10, line.find('"', 10) - 10);
        const std::string targetFolder = fs::path(target).parent_path().string();
        if (!targetFolder.empty() && targetFolder != folder) graph[folder].insert(targetFolder);
      }
    }
  }
  return graph;
}

// The first cycle found, as the folders along it, or nothing.
std::vector<std::string> FindCycle(const Graph& graph) {
  std::map<std::string, int> state;  // 1: on the path, 2: done
  std::vector<std::string> path;
  std::vector<std::string> cycle;
  auto visit = [&](auto&& self, const std::string& folder) -> void {
    state[folder] = 1;
    path.push_back(folder);
    if (auto it = graph.find(folder); it != graph.end()) {
      for (const std::string& next : it->second) {
        if (!cycle.empty()) break;
        if (state[next] == 1) {
          cycle.assign(std::find(path.begin(), path.end(), next), path.end());
          cycle.push_back(next);
        } else if (state[next] == 0) {
          self(self, next);
        }
      }
    }
    path.pop_back();
    state[folder] = 2;
  };
  for (const auto& [folder, targets] : graph) {
    if (cycle.empty() && state[folder] == 0) visit(visit, folder);
  }
  return cycle;
}

TEST(LayeringTest, IncludesBetweenFoldersRunOneWay) {
  const Graph graph = IncludeGraph(VX_SOURCE_DIR);
  ASSERT_TRUE(graph.count("platform/workspace")) << "the walk found no sources";
  const std::vector<std::string> cycle = FindCycle(graph);
  std::string text;
  for (const std::string& folder : cycle) text += (text.empty() ? "" : " -> ") + folder;
  EXPECT_TRUE(cycle.empty()) << "folders include each other: " << text;

  // The platform layer holds only service folders.
  for (const auto& entry : fs::directory_iterator(fs::path(VX_SOURCE_DIR) / "platform")) {
    EXPECT_TRUE(entry.is_directory()) << entry.path() << " stands at the top of platform/";
  }
}

}  // namespace
