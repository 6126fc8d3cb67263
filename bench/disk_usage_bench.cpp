// Measuring a tree of about 20,000 files: diskUsageForURL against a spawned du -s.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "filemanager/VXFileManager.h"

namespace vx::bench {
namespace {

constexpr int kDirectories = 200;
constexpr int kFilesPerDirectory = 100;

// Files of a few sizes, nested two levels deep, with some hard and symbolic links: the mix
// an application's data container holds.
void Populate(const std::string& root) {
  for (int d = 0; d < kDirectories; ++d) {
    const std::string sub = root + "/group" + std::to_string(d % 20) + "/dir" + std::to_string(d);
    std::filesystem::create_directories(sub);
    for (int f = 0; f < kFilesPerDirectory; ++f) {
      const std::string file = sub + "/file" + std::to_string(f);
      if (f % 25 == 0 && d > 0) {
        ::link((root + "/group0/dir0/file" + std::to_string(f)).c_str(), file.c_str());
      } else if (f % 33 == 0) {
        ::symlink("file0", file.c_str());
      } else {
        std::ofstream(file) << std::string(static_cast<size_t>((f * 997) % 9000), 'x');
      }
    }
  }
}

const ScratchDir& Tree() {
  static const ScratchDir tree;
  static const bool populated = (Populate(tree.path()), true);
  (void)populated;
  return tree;
}

void BM_DiskUsageForURL(benchmark::State& state) {
  const FileURL root = FileURL::fileURLWithPath(Tree().path(), true);
  uint64_t total = 0;
  for (auto _ : state) {
    total = VXFileManager::defaultManager().diskUsageForURL(root);
    benchmark::DoNotOptimize(total);
  }
  state.counters["bytes"] = static_cast<double>(total);
  state.SetItemsProcessed(state.iterations() * kDirectories * kFilesPerDirectory);
}
BENCHMARK(BM_DiskUsageForURL)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DuSpawned(benchmark::State& state) {
  const std::string command = "du -s -B1 '" + Tree().path() + "'";
  unsigned long long total = 0;
  for (auto _ : state) {
    total = RunForNumber(command);
    benchmark::DoNotOptimize(total);
  }
  // du also counts the directories' own blocks, which the measurement leaves out.
  state.counters["bytes"] = static_cast<double>(total);
  state.SetItemsProcessed(state.iterations() * kDirectories * kFilesPerDirectory);
}
BENCHMARK(BM_DuSpawned)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vx::bench
