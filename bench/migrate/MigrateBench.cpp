// The migration benchmark: `vxmigrate migrate` against the floor program, each on its own
// copy of the same sample device, in alternating order, medians over the rounds. Every
// child runs alone and is measured from outside: wall time, peak RSS (wait4), and the bytes
// it caused to be written to storage (write_bytes of /proc/<pid>/io, read before reaping).
//
//   vx_migrate_bench --bin-dir DIR --work-dir DIR [--sizes 1000,10000] [--rounds 3]
//                    [--data-bytes 16384] [--big-dir DIR] [--no-big]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

struct Run {
  double seconds = 0;
  long peakRssKiB = 0;
  unsigned long long writeBytes = 0;
  int status = 0;
};

struct Options {
  std::string binDir;
  std::string workDir;
  std::string bigDir;  // the large-bundle device needs real storage: write_bytes counts only that
  std::vector<int> sizes = {1000, 10000};
  int rounds = 3;
  unsigned long dataBytes = 16384;
  bool big = true;
  // The data-heavy device: this many applications, each with this many more small files in
  // its documents (0: no such device).
  int heavyApps = 20;
  int filesPerApp = 20000;
};


unsigned long long WriteBytesOf(pid_t pid) {
  std::ifstream io("/proc/" + std::to_string(pid) + "/io");
  std::string key;
  unsigned long long value = 0;
  while (io >> key >> value) {
    if (key == "write_bytes:") return value;
  }
  return 0;
}

// Runs `argv` with its output going to `logPath` and measures it.
Run Measure(const std::vector<std::string>& argv, const std::string& logPath,
            const std::string& tmpDir = "") {
  std::vector<char*> args = vx::bench::ExecArguments(argv);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    // The placeholder is built in the temporary directory and then moved in: on a device
    // that directory shares the containers' file system, and so it does here.
    if (!tmpDir.empty()) ::setenv("TMPDIR", tmpDir.c_str(), 1);
    const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log >= 0) {
      ::dup2(log, STDOUT_FILENO);
      ::dup2(log, STDERR_FILENO);
    }
    ::execv(args[0], args.data());
    std::perror(args[0]);
    ::_exit(127);
  }
  Run run;
  siginfo_t info{};
  // Waits without reaping, so that the child's I/O counters can still be read.
  ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.writeBytes = WriteBytesOf(child);
  struct rusage usage {};
  int status = 0;
  ::wait4(child, &status, 0, &usage);
  run.peakRssKiB = usage.ru_maxrss;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

void Shell(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "vx_migrate_bench: failed: %s\n", command.c_str());
    std::exit(1);
  }
}

std::string Quote(const std::string& s) { return "'" + s + "'"; }

// Before a cold run: what the caches hold is written and then dropped (root only; otherwise
// the runs are warm, and the report says so).
bool DropCaches() {
  ::sync();
  std::ofstream drop("/proc/sys/vm/drop_caches");
  drop << "3\n";
  drop.flush();
  return drop.good();
}

// Adds `files` files of a few bytes to the documents of every old container below `oldRoot`.
void AddSmallFiles(const std::string& oldRoot, int files) {
  Shell("for c in " + Quote(oldRoot) + "/*/; do [ -d \"$c/Documents\" ] && mkdir -p \"$c/Documents/heavy\"; done");
  std::ifstream list;
  const std::string names = oldRoot + "/../heavy-dirs";
  Shell("ls -d " + Quote(oldRoot) + "/*/Documents/heavy > " + Quote(names));
  list.open(names);
  for (std::string dir; std::getline(list, dir);) {
    for (int i = 0; i < files; ++i) {
      std::ofstream(dir + "/f" + std::to_string(i)) << "bytes of file " << i << "\n";
    }
  }
  Shell("rm -f " + Quote(names));
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

struct Outcome {
  std::vector<double> floor, ours;
  long floorRss = 0, oursRss = 0;
  unsigned long long floorWritten = 0, oursWritten = 0;
  int oursStatus = 0;
  double appsSeconds = -1;
};

// One device, `rounds` times: a fresh copy for each side, the order alternating.
Outcome Compare(const Options& o, const std::string& master, const std::string& dir, int rounds,
                bool timeApps, bool cold = false) {
  Outcome out;
  const std::string vxmigrate = o.binDir + "/vxmigrate";
  const std::string floorProgram = o.binDir + "/vx_migration_floor";
  const std::string log = dir + "/runs.log";
  for (int round = 0; round < rounds; ++round) {
    const std::string floorCopy = dir + "/floor", oursCopy = dir + "/ours";
    Shell("rm -rf " + Quote(floorCopy) + " " + Quote(oursCopy) + " && cp -a " + Quote(master) +
          " " + Quote(floorCopy) + " && cp -a " + Quote(master) + " " + Quote(oursCopy) +
          " && sync");
    Run floorRun, oursRun;
    auto runFloor = [&] {
      if (cold) DropCaches();
      floorRun = Measure({floorProgram, floorCopy}, log);
    };
    auto runOurs = [&] {
      Shell("mkdir -p " + Quote(dir + "/tmp"));
      if (cold) DropCaches();
      oursRun = Measure({vxmigrate, "migrate", "--root", oursCopy, "--quiet", "--no-progress"}, log,
                        dir + "/tmp");
    };
    if (round % 2 == 0) {
      runFloor();
      runOurs();
    } else {
      runOurs();
      runFloor();
    }
    out.floor.push_back(floorRun.seconds);
    out.ours.push_back(oursRun.seconds);
    out.floorRss = std::max(out.floorRss, floorRun.peakRssKiB);
    out.oursRss = std::max(out.oursRss, oursRun.peakRssKiB);
    out.floorWritten = std::max(out.floorWritten, floorRun.writeBytes);
    out.oursWritten = std::max(out.oursWritten, oursRun.writeBytes);
    out.oursStatus = std::max(out.oursStatus, oursRun.status);
    std::printf("    round %d: floor %.2f s, ours %.2f s (exit %d)\n", round + 1, floorRun.seconds,
                oursRun.seconds, oursRun.status);
    std::fflush(stdout);
    if (timeApps && round == rounds - 1) {
      std::vector<double> apps;
      for (int i = 0; i < 3; ++i) {
        apps.push_back(
            Measure({vxmigrate, "apps", "--json", "--root", oursCopy}, "/dev/null").seconds);
      }
      out.appsSeconds = Median(apps);
    }
  }
  Shell("rm -rf " + Quote(dir + "/floor") + " " + Quote(dir + "/ours") + " " + Quote(dir + "/tmp"));
  return out;
}

std::string MiB(unsigned long long bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MiB", bytes / 1048576.0);
  return text;
}

void Print(const char* label, const Outcome& r) {
  const double floorMedian = Median(r.floor), oursMedian = Median(r.ours);
  std::printf(
      "%-22s floor %8.2f s  ours %8.2f s  floor/ours %.2f  peak RSS floor %s, ours %s  "
      "written floor %s, ours %s%s\n",
      label, floorMedian, oursMedian, floorMedian / oursMedian, MiB(r.floorRss * 1024ull).c_str(),
      MiB(r.oursRss * 1024ull).c_str(), MiB(r.floorWritten).c_str(), MiB(r.oursWritten).c_str(),
      r.oursStatus ? "  (migrate reported failures)" : "");
  std::fflush(stdout);
}

std::vector<int> ParseSizes(const std::string& text) {
  std::vector<int> sizes;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');) sizes.push_back(std::atoi(item.c_str()));
  return sizes;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (arg == "--bin-dir")
      o.binDir = next();
    else if (arg == "--work-dir")
      o.workDir = next();
    else if (arg == "--big-dir")
      o.bigDir = next();
    else if (arg == "--sizes")
      o.sizes = ParseSizes(next());
    else if (arg == "--rounds")
      o.rounds = std::max(1, std::atoi(next().c_str()));
    else if (arg == "--data-bytes")
      o.dataBytes = std::strtoul(next().c_str(), nullptr, 10);
    else if (arg == "--no-big")
      o.big = false;
    else if (arg == "--files-per-app")
      o.filesPerApp = std::max(0, std::atoi(next().c_str()));
    else if (arg == "--heavy-apps")
      o.heavyApps = std::max(1, std::atoi(next().c_str()));
    else {
      std::fprintf(stderr,
                   "usage: vx_migrate_bench --bin-dir DIR --work-dir DIR [--sizes "
                   "1000,10000] [--rounds N] [--data-bytes N] [--big-dir DIR] [--no-big] "
                   "[--heavy-apps N] [--files-per-app N]\n");
      return 2;
    }
  }
  if (o.binDir.empty() || o.workDir.empty()) {
    std::fprintf(stderr, "vx_migrate_bench: --bin-dir and --work-dir are required\n");
    return 2;
  }
  if (o.bigDir.empty()) o.bigDir = o.workDir;
  const std::string vxmigrate = o.binDir + "/vxmigrate";
  std::printf("migration benchmark: %d round(s) per device, medians; %s\n", o.rounds,
              o.workDir.c_str());

  std::vector<std::pair<int, double>> oursBySize;
  for (int apps : o.sizes) {
    const std::string dir = o.workDir + "/apps-" + std::to_string(apps);
    const std::string master = dir + "/device";
    Shell("rm -rf " + Quote(dir) + " && mkdir -p " + Quote(dir));
    Shell(Quote(vxmigrate) + " sample-device " + Quote(master) + " --apps " + std::to_string(apps) +
          " --data-bytes " + std::to_string(o.dataBytes) + " >/dev/null");
    std::printf("  %d apps:\n", apps);
    const Outcome r = Compare(o, master, dir, o.rounds, true);
    Print((std::to_string(apps) + " apps").c_str(), r);
    std::printf("%-22s vxmigrate apps --json on the migrated device: %.3f s\n", "", r.appsSeconds);
    std::fflush(stdout);
    oursBySize.emplace_back(apps, Median(r.ours));
    Shell("rm -rf " + Quote(dir));
  }
  std::sort(oursBySize.begin(), oursBySize.end());
  for (size_t i = 1; i < oursBySize.size(); ++i) {
    std::printf("t(%d)/t(%d) = %.2f (apps ratio %.0f)\n", oursBySize[i].first, oursBySize[0].first,
                oursBySize[i].second / oursBySize[0].second,
                double(oursBySize[i].first) / oursBySize[0].first);
  }

  if (o.filesPerApp > 0) {
    const std::string dir = o.workDir + "/data-heavy";
    const std::string master = dir + "/device";
    Shell("rm -rf " + Quote(dir) + " && mkdir -p " + Quote(dir));
    Shell(Quote(vxmigrate) + " sample-device " + Quote(master) + " --apps " +
          std::to_string(o.heavyApps) + " --data-bytes " + std::to_string(o.dataBytes) +
          " >/dev/null");
    AddSmallFiles(master + "/private/var/mobile/Applications", o.filesPerApp);
    const bool cold = DropCaches();
    std::printf("  %d apps with %d more small files each (caches %s before each run):\n",
                o.heavyApps, o.filesPerApp, cold ? "dropped" : "warm: not root");
    const Outcome r = Compare(o, master, dir, o.rounds, false, cold);
    Print("data-heavy", r);
    std::fflush(stdout);
    Shell("rm -rf " + Quote(dir));
  }

  if (o.big) {
    constexpr int kBigApps = 20;
    constexpr unsigned long long kBundleBytes = 50ull << 20;
    const std::string dir = o.bigDir + "/large-bundles";
    const std::string master = dir + "/device";
    Shell("rm -rf " + Quote(dir) + " && mkdir -p " + Quote(dir));
    Shell(Quote(vxmigrate) + " sample-device " + Quote(master) + " --apps " +
          std::to_string(kBigApps) + " --bundle-bytes " + std::to_string(kBundleBytes) +
          " --data-bytes " + std::to_string(o.dataBytes) + " >/dev/null");
    std::printf("  %d bundles of %s (bundle bytes on the device: %s):\n", kBigApps,
                MiB(kBundleBytes).c_str(), MiB(kBigApps * kBundleBytes).c_str());
    const Outcome r = Compare(o, master, dir, o.rounds, false);
    Print("large bundles", r);
    std::printf("%-22s bundle bytes copied by ours: %s\n", "",
                r.oursWritten >= kBundleBytes ? "yes (written >= one bundle)" : "none");
    Shell("rm -rf " + Quote(dir));
  }
  return 0;
}
