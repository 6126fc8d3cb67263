// Prints the SHA-256 digest of the file named on the command line.
#include <cstdio>

#include "support/FileDigest.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto digest = vx::VXCreateSHA256Digest(vx::FileURL::fileURLWithPath(argv[1]));
  if (!digest) return 1;
  std::printf("%s\n", digest->c_str());
  return 0;
}
