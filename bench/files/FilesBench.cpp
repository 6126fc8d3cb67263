// vxfile against the standard tools, side by side on the same trees: du, rm, cp, ls, own and
// digest against du -sB1, rm -rf, cp -a, ls -f, chown -R -h and openssl dgst -sha256. Each
// pair runs in alternating order (the peer first in odd rounds, ours first in even ones),
// every run a child of its own with its output thrown away, measured by wall time; printed
// are both medians and the median of the per-round ratios, peer time / ours (above 1: ours
// is faster). cp is also checked: the copy vxfile makes must carry the metadata of the one
// cp -a makes (types, modes, owners, times, extended attributes, link targets, which names
// share a file, and the bytes).
//
// The trees, made once in the work directory and reused by later runs:
//   T1  100,000 files in 1,000 directories, about 391 MiB; a few names are hard links to
//       files of other directories, some files carry extended attributes, some directories
//       a relative symbolic link, and the modes vary;
//   T3  200,000 empty files in one directory;
//   big 1 GiB of bytes for the digest.
// rm removes the copies that cp made: the peer and vxfile each remove one, which one
// alternating with the rounds, after a sync so that neither waits for the other's writes.
//
//   vx_files_bench --bin-dir DIR --work-dir DIR [--rounds 3] [--quick-rounds 11]
//                  [--ops du,ls,own,digest,cp,rm] [--workers N]
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "BenchSupport.h"

namespace {

struct Options {
  std::string binDir;
  std::string workDir;
  int rounds = 3;
  int quickRounds = 11;
  std::string workers;  // passed to vxfile as -j when given; else one worker per core
  std::set<std::string> ops = {"du", "ls", "own", "digest", "cp", "rm"};
};

constexpr int kT1Directories = 1000;
constexpr int kT1FilesPerDirectory = 100;
constexpr int kT3Files = 200000;
constexpr size_t kBigBytes = size_t{1} << 30;

// Runs `argv` with standard output and error thrown away; the wall time, or -1 on failure.
double Time(const std::vector<std::string>& argv) {
  std::vector<char*> args = vx::bench::ExecArguments(argv);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child == 0) {
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
    }
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "  failed (status %d): %s ...\n", status, argv[0].c_str());
    return -1;
  }
  return seconds;
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string a, b, c;
  in >> a >> b >> c;
  return a + " " + b + " " + c;
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t at = 0;
  while (at < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + at, bytes.size() - at);
    if (n <= 0) break;
    at += static_cast<size_t>(n);
  }
  return ::close(fd) == 0 && at == bytes.size();
}

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) std::fprintf(stderr, "  failed: %s\n", command.c_str());
}

// T1: file sizes uniform in [0, 8200) bytes, 4,100 on average; the same tree on every machine.
bool MakeT1(const std::string& root) {
  std::printf("making T1 in %s (once)\n", root.c_str());
  std::fflush(stdout);
  Run("rm -rf '" + root + "'");
  if (::mkdir(root.c_str(), 0755) != 0) return false;
  std::mt19937_64 random(20261123);
  std::string bytes(8200, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  const mode_t modes[] = {0644, 0600, 0755, 0640, 0444};
  for (int d = 0; d < kT1Directories; ++d) {
    char dir[64];
    std::snprintf(dir, sizeof dir, "/d%03d", d);
    const std::string directory = root + dir;
    if (::mkdir(directory.c_str(), d % 7 ? 0755 : 0750) != 0) return false;
    for (int f = 0; f < kT1FilesPerDirectory; ++f) {
      const std::string path = directory + "/f" + std::to_string(f);
      // One name in a hundred, in every tenth directory, is a second link to a file of the
      // next directory, made once that exists.
      if (d % 10 == 0 && f == kT1FilesPerDirectory - 1) continue;
      const size_t size = random() % 8200;
      const size_t offset = random() % 64;
      if (!WriteFile(path, bytes.substr(offset, std::min(size, bytes.size() - offset)))) {
        return false;
      }
      ::chmod(path.c_str(), modes[(d + f) % 5]);
      if (f % 50 == 7) {
        const std::string value = "value-" + std::to_string(d * 1000 + f);
        ::setxattr(path.c_str(), "user.bench", value.data(), value.size(), 0);
      }
    }
    if (d % 10 == 0) {
      ::symlink("f0", (directory + "/link").c_str());
    }
  }
  for (int d = 0; d < kT1Directories; d += 10) {
    char from[64];
    char to[64];
    std::snprintf(from, sizeof from, "/d%03d/f0", (d + 1) % kT1Directories);
    std::snprintf(to, sizeof to, "/d%03d/f%d", d, kT1FilesPerDirectory - 1);
    if (::link((root + from).c_str(), (root + to).c_str()) != 0) return false;
  }
  return true;
}

bool MakeT3(const std::string& root) {
  std::printf("making T3 in %s (once)\n", root.c_str());
  std::fflush(stdout);
  Run("rm -rf '" + root + "'");
  if (::mkdir(root.c_str(), 0755) != 0) return false;
  for (int f = 0; f < kT3Files; ++f) {
    const std::string path = root + "/e" + std::to_string(f);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    ::close(fd);
  }
  return true;
}

bool MakeBig(const std::string& path) {
  std::printf("making a 1 GiB file at %s (once)\n", path.c_str());
  std::fflush(stdout);
  std::mt19937_64 random(7);
  std::string chunk(1 << 20, '\0');
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  for (size_t written = 0; written < kBigBytes; written += chunk.size()) {
    for (char& c : chunk) c = static_cast<char>(random());
    if (::write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) {
      ::close(fd);
      return false;
    }
  }
  return ::close(fd) == 0;
}

// A tree made once is marked ready beside itself, so that a run cut off while making it
// makes it again.
bool Ensure(const std::string& path, bool (*make)(const std::string&)) {
  const std::string ready = path + ".ready";
  if (Exists(ready) && Exists(path)) return true;
  ::unlink(ready.c_str());
  if (!make(path)) {
    std::fprintf(stderr, "cannot make %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  ::sync();
  return WriteFile(ready, "");
}

// --- The metadata check -------------------------------------------------------------

struct Item {
  mode_t mode = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  off_t size = 0;
  timespec atime{};
  timespec mtime{};
  nlink_t nlink = 0;
  ino_t ino = 0;
  std::map<std::string, std::string> xattrs;
  std::string linkTarget;
};

std::map<std::string, std::string> Xattrs(const std::string& path) {
  std::map<std::string, std::string> out;
  char names[4096];
  const ssize_t n = ::llistxattr(path.c_str(), names, sizeof names);
  for (ssize_t at = 0; at < n;) {
    const std::string name(names + at);
    at += static_cast<ssize_t>(name.size()) + 1;
    char value[4096];
    const ssize_t v = ::lgetxattr(path.c_str(), name.c_str(), value, sizeof value);
    out[name] = v >= 0 ? std::string(value, static_cast<size_t>(v)) : "?";
  }
  return out;
}

// The names in a directory of the benchmark's own trees, "." and ".." left out.
std::vector<std::string> NamesIn(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = ::opendir(path.c_str())) {
    while (const dirent* e = ::readdir(dir)) {
      if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, "..")) names.push_back(e->d_name);
    }
    ::closedir(dir);
  }
  return names;
}

// Every item's status is taken before anything of it is read, so that the check does not
// move the access times it compares.
void Scan(const std::string& root, const std::string& relative, std::map<std::string, Item>* out) {
  const std::string path = relative.empty() ? root : root + "/" + relative;
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  Item item;
  item.mode = st.st_mode;
  item.uid = st.st_uid;
  item.gid = st.st_gid;
  item.size = st.st_size;
  item.atime = st.st_atim;
  item.mtime = st.st_mtim;
  item.nlink = st.st_nlink;
  item.ino = st.st_ino;
  item.xattrs = Xattrs(path);
  if (S_ISLNK(st.st_mode)) {
    char target[4096];
    const ssize_t n = ::readlink(path.c_str(), target, sizeof target);
    if (n > 0) item.linkTarget.assign(target, static_cast<size_t>(n));
  }
  (*out)[relative] = item;
  if (!S_ISDIR(st.st_mode)) return;
  for (const std::string& name : NamesIn(path)) Scan(root, relative.empty() ? name : relative + "/" + name, out);
}

// Reads a byte of every file, every directory and every link of the tree once. Under relatime
// the first read after a change of status (the chown rounds) moves an item's access time, and
// later reads do not: without this the copy made second would carry access times the first
// copy's reading gave the source, and the two copies could not be compared.
void SettleAccessTimes(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return;
  if (S_ISLNK(st.st_mode)) {
    char target[4096];
    (void)!::readlink(path.c_str(), target, sizeof target);
    return;
  }
  if (S_ISREG(st.st_mode)) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char byte = 0;
    if (fd >= 0) {
      (void)!::read(fd, &byte, 1);
      ::close(fd);
    }
    return;
  }
  if (!S_ISDIR(st.st_mode)) return;
  for (const std::string& name : NamesIn(path)) SettleAccessTimes(path + "/" + name);
}

bool SameBytes(const std::string& first, const std::string& second) {
  std::ifstream one(first, std::ifstream::binary);
  std::ifstream other(second, std::ifstream::binary);
  const std::string ones((std::istreambuf_iterator<char>(one)), std::istreambuf_iterator<char>());
  const std::string others((std::istreambuf_iterator<char>(other)),
                           std::istreambuf_iterator<char>());
  return one.good() == other.good() && ones == others;
}

// The groups of names that share a file, by name.
std::set<std::vector<std::string>> LinkGroups(const std::map<std::string, Item>& items) {
  std::map<ino_t, std::vector<std::string>> byInode;
  for (const auto& [name, item] : items) {
    if (!S_ISDIR(item.mode) && item.nlink > 1) byInode[item.ino].push_back(name);
  }
  std::set<std::vector<std::string>> groups;
  for (auto& [ino, names] : byInode) groups.insert(names);
  return groups;
}

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// Differences between the copy of cp -a (`peer`) and ours; prints the first few.
size_t CompareCopies(const std::string& peer, const std::string& ours) {
  std::map<std::string, Item> a;
  std::map<std::string, Item> b;
  Scan(peer, "", &a);
  Scan(ours, "", &b);
  size_t differences = 0;
  auto report = [&](const std::string& name, const char* what) {
    if (differences++ < 10) std::printf("    differs: %s (%s)\n", name.c_str(), what);
  };
  for (const auto& [name, x] : a) {
    auto it = b.find(name);
    if (it == b.end()) {
      report(name, "missing from ours");
      continue;
    }
    const Item& y = it->second;
    if (x.mode != y.mode) report(name, "type or mode");
    if (x.uid != y.uid || x.gid != y.gid) report(name, "owner");
    if (!S_ISDIR(x.mode) && x.size != y.size) report(name, "size");
    if (!SameTime(x.mtime, y.mtime)) report(name, "modification time");
    if (!SameTime(x.atime, y.atime)) report(name, "access time");
    if (x.xattrs != y.xattrs) report(name, "extended attributes");
    if (x.linkTarget != y.linkTarget) report(name, "link target");
    if (S_ISREG(x.mode) && !SameBytes(peer + "/" + name, ours + "/" + name)) report(name, "bytes");
  }
  for (const auto& [name, y] : b) {
    if (!a.count(name)) report(name, "only in ours");
  }
  if (LinkGroups(a) != LinkGroups(b)) report("(hard links)", "names sharing a file");
  std::printf("    %zu items compared, %zu differences\n", a.size(), differences);
  return differences;
}

// --- The pairs ----------------------------------------------------------------------

struct Pair {
  std::string op;
  std::string tree;
  std::vector<double> peer;
  std::vector<double> ours;
  std::vector<double> ratios;
};

void Add(Pair* pair, double peer, double ours) {
  if (peer <= 0 || ours <= 0) return;
  pair->peer.push_back(peer);
  pair->ours.push_back(ours);
  pair->ratios.push_back(peer / ours);
}

void Print(const Pair& pair, const char* peerName, double target) {
  const double ratio = Median(pair.ratios);
  std::printf("%-7s %-16s %-4s rounds %2zu  peer %8.3f s  ours %8.3f s  ratio %5.2f  (target %.1f%s)\n",
              pair.op.c_str(), peerName, pair.tree.c_str(), pair.ratios.size(), Median(pair.peer),
              Median(pair.ours), ratio, target, ratio >= target ? ", met" : ", not met");
  std::fflush(stdout);
}

// Alternates the two commands over `rounds` rounds.
Pair Quick(const std::string& op, const std::string& tree, int rounds,
           const std::vector<std::string>& peer, const std::vector<std::string>& ours) {
  Pair pair{op, tree, {}, {}, {}};
  Time(peer);  // a warm cache for both
  Time(ours);
  for (int round = 0; round < rounds; ++round) {
    double p = 0;
    double o = 0;
    if (round % 2 == 0) {
      p = Time(peer);
      o = Time(ours);
    } else {
      o = Time(ours);
      p = Time(peer);
    }
    Add(&pair, p, o);
  }
  return pair;
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
    if (arg == "--bin-dir") {
      options->binDir = value();
    } else if (arg == "--work-dir") {
      options->workDir = value();
    } else if (arg == "--rounds") {
      options->rounds = std::atoi(value().c_str());
    } else if (arg == "--quick-rounds") {
      options->quickRounds = std::atoi(value().c_str());
    } else if (arg == "--workers") {
      options->workers = value();
    } else if (arg == "--ops") {
      options->ops.clear();
      std::stringstream list(value());
      std::string op;
      while (std::getline(list, op, ',')) options->ops.insert(op);
    } else {
      return false;
    }
  }
  return !options->binDir.empty() && !options->workDir.empty() && options->rounds > 0 &&
         options->quickRounds > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: vx_files_bench --bin-dir DIR --work-dir DIR [--rounds N] "
                 "[--quick-rounds N] [--ops du,ls,own,digest,cp,rm] [--workers N]\n");
    return 2;
  }
  Run("mkdir -p '" + options.workDir + "'");
  char resolved[PATH_MAX];
  if (!::realpath(options.workDir.c_str(), resolved)) return 1;
  const std::string work = resolved;
  const std::string vxfile = options.binDir + "/vxfile";
  const std::string t1 = work + "/T1";
  const std::string t3 = work + "/T3";
  const std::string big = work + "/big";
  auto wants = [&](const char* op) { return options.ops.count(op) > 0; };
  // vxfile COMMAND [-j N] ARGUMENTS...
  auto vx = [&](const char* command, std::vector<std::string> arguments) {
    std::vector<std::string> argv = {vxfile, command};
    if (!options.workers.empty()) argv.insert(argv.end(), {"-j", options.workers});
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return argv;
  };

  if ((wants("du") || wants("own") || wants("cp") || wants("rm")) && !Ensure(t1, MakeT1)) return 1;
  if (wants("ls") && !Ensure(t3, MakeT3)) return 1;
  if (wants("digest") && !Ensure(big, MakeBig)) return 1;

  std::printf("load average before: %s; %ld cores; vxfile workers: %s\n", LoadAverage().c_str(),
              ::sysconf(_SC_NPROCESSORS_ONLN),
              options.workers.empty() ? "default (one per core)" : options.workers.c_str());
  std::vector<std::tuple<Pair, const char*, double>> results;
  auto keep = [&](Pair pair, const char* peerName, double target) {
    Print(pair, peerName, target);
    results.emplace_back(std::move(pair), peerName, target);
  };

  if (wants("du")) {
    keep(Quick("du", "T1", options.quickRounds, {"du", "-sB1", t1}, vx("du", {t1})),
         "du -sB1", 1.5);
  }
  if (wants("ls")) {
    keep(Quick("ls", "T3", options.quickRounds, {"ls", "-f", t3}, {vxfile, "ls", t3}), "ls -f",
         1.2);
  }
  if (wants("own")) {
    // Twice: on the tree as it is (every item already has the owner asked for, which is the
    // usual case of a tree normalised before), and giving it each time to an owner it does
    // not have yet, so that both change every item.
    Time({"chown", "-R", "-h", "0:0", t1});
    keep(Quick("own", "T1", options.quickRounds, {"chown", "-R", "-h", "0:0", t1},
               vx("own", {t1, "0", "0"})),
         "chown -R -h", 1.8);
    Pair pair{"own-new", "T1", {}, {}, {}};
    int owner = 0;
    auto peer = [&] {
      const std::string id = std::to_string(40000 + (++owner % 2));
      return Time({"chown", "-R", "-h", id + ":" + id, t1});
    };
    auto ours = [&] {
      const std::string id = std::to_string(40000 + (++owner % 2));
      return Time(vx("own", {t1, id, id}));
    };
    for (int round = -1; round < options.quickRounds; ++round) {
      double p = 0;
      double o = 0;
      if (round % 2 == 0) {
        p = peer();
        o = ours();
      } else {
        o = ours();
        p = peer();
      }
      if (round >= 0) Add(&pair, p, o);  // the first round only warms the cache
    }
    Time({"chown", "-R", "-h", "0:0", t1});
    keep(std::move(pair), "chown -R -h", 1.8);
  }
  if (wants("digest")) {
    keep(Quick("digest", "1GiB", options.quickRounds, {"openssl", "dgst", "-sha256", big},
               {vxfile, "digest", big}),
         "openssl dgst", 1.0);
  }
  if (wants("cp") || wants("rm")) {
    Pair cp{"cp", "T1", {}, {}, {}};
    Pair rm{"rm", "T1", {}, {}, {}};
    size_t differences = 0;
    SettleAccessTimes(t1);
    for (int round = 0; round < options.rounds; ++round) {
      const std::string peerCopy = work + "/copy-peer";
      const std::string ourCopy = work + "/copy-ours";
      Run("rm -rf '" + peerCopy + "' '" + ourCopy + "'");
      ::sync();
      const std::vector<std::string> peer = {"cp", "-a", t1, peerCopy};
      const std::vector<std::string> ours = vx("cp", {t1, ourCopy});
      double p = 0;
      double o = 0;
      if (round % 2 == 0) {
        p = Time(peer);
        ::sync();
        o = Time(ours);
      } else {
        o = Time(ours);
        ::sync();
        p = Time(peer);
      }
      ::sync();
      if (wants("cp")) {
        Add(&cp, p, o);
        std::printf("  cp round %d: cp -a %.3f s, vxfile cp %.3f s\n", round + 1, p, o);
        if (round == 0) {
          std::printf("  checking the copy's metadata against cp -a's\n");
          differences += CompareCopies(peerCopy, ourCopy);
          ::sync();
        }
      }
      if (!wants("rm")) continue;
      // Each removes one of the two copies; which one alternates.
      const std::string forPeer = round % 2 == 0 ? peerCopy : ourCopy;
      const std::string forOurs = round % 2 == 0 ? ourCopy : peerCopy;
      if (round % 2 == 0) {
        p = Time({"rm", "-rf", forPeer});
        ::sync();
        o = Time(vx("rm", {forOurs}));
      } else {
        o = Time(vx("rm", {forOurs}));
        ::sync();
        p = Time({"rm", "-rf", forPeer});
      }
      ::sync();
      Add(&rm, p, o);
      std::printf("  rm round %d: rm -rf %.3f s, vxfile rm %.3f s\n", round + 1, p, o);
      std::fflush(stdout);
    }
    if (wants("cp")) {
      keep(std::move(cp), "cp -a", 1.5);
      std::printf("        metadata of the copy: %s\n",
                  differences == 0 ? "identical to cp -a's" : "DIFFERENT from cp -a's");
    }
    if (wants("rm")) keep(std::move(rm), "rm -rf", 1.5);
  }

  std::printf("load average after: %s\n\nsummary (ratio = peer time / ours; medians):\n",
              LoadAverage().c_str());
  for (const auto& [pair, peerName, target] : results) Print(pair, peerName, target);
  return 0;
}
