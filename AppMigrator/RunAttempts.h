// Which item of the old root a run is working on, noted outside the old containers (their own
// files are what may make the run die), so that a device converges even when its migration
// dies at one container every time: a run that finds the note of a dead run counts a crash
// against the item it names, and once an item has two, the next run sets it aside and goes on
// with the others.
//
// The note is one fixed-size record rewritten in place for each item, without a sync: a
// crash keeps every write the kernel has seen, so the note costs a run one write per item.
// Only a count is synced, and only when a dead run is found, which is rare. A power cut may
// lose the note; the item is then simply tried again.
#pragma once

#include <string>

#include "platform/files/UniqueFd.h"
#include "support/types/FileURL.h"
#include "support/types/PlistValue.h"

namespace vx {

class RunAttempts {
 public:
  // Runs that died at an item before it is set aside.
  static constexpr int kCrashesBeforeSettingAside = 2;

  // Reads the counts and the note in `directory` (the installer data directory), counting
  // the note of a dead run. Inert when the note cannot be opened.
  explicit RunAttempts(const FileURL& directory);

  // How many runs in a row died at the item of that name (its last path component), and the
  // identifier it was being migrated under when one was known.
  int crashes(const std::string& name) const;
  std::string identifier(const std::string& name) const;

  // The run now works on `name`; `identifier` when it is known.
  void begin(const std::string& name, const std::string& identifier);
  // The item's handling ended, whatever became of it: its count goes.
  void finished(const std::string& name);
  // The run is past its items: the note goes, so that nothing after them is blamed on one.
  void end();

 private:
  void saveCounts();

  FileURL notePath_;
  FileURL countsPath_;
  UniqueFd note_;
  PlistDictionary counts_;
};

}  // namespace vx
