// The SHA-256 digest of a 256 MiB file: VXCreateSHA256Digest against a spawned sha256sum.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "support/FileDigest.h"

namespace vx::bench {
namespace {

constexpr int64_t kFileSize = int64_t{256} << 20;

const std::string& BigFile() {
  static const ScratchDir dir;
  static const std::string path = [] {
    const std::string file = dir.path() + "/big";
    std::ofstream out(file, std::fstream::binary);
    std::vector<char> block(1 << 20);
    uint32_t x = 2463534242u;
    for (int64_t written = 0; written < kFileSize; written += block.size()) {
      for (char& c : block) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        c = static_cast<char>(x);
      }
      out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    return file;
  }();
  return path;
}

void BM_VXCreateSHA256Digest(benchmark::State& state) {
  const FileURL file = FileURL::fileURLWithPath(BigFile());
  for (auto _ : state) {
    auto digest = VXCreateSHA256Digest(file);
    if (!digest) state.SkipWithError("digest failed");
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
}
BENCHMARK(BM_VXCreateSHA256Digest)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_Sha256sumSpawned(benchmark::State& state) {
  const std::string command = "sha256sum '" + BigFile() + "'";
  for (auto _ : state) {
    std::string digest = RunForWord(command);
    if (digest.size() != 64) state.SkipWithError("sha256sum failed");
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * kFileSize);
}
BENCHMARK(BM_Sha256sumSpawned)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace
}  // namespace vx::bench
