// A folder of several output files that is replaced as a whole or not at
// all. The new content is written into a staging folder beside the target
// (".NAME.staging-PID"), which starts as a copy of the target made of hard
// links when the target's other files are to be kept; commit() then swaps
// the two folders in one step (renameat2 with RENAME_EXCHANGE) and removes
// the old content. Until commit() the target is untouched: a run that fails,
// throws or is killed leaves what was there before, never a mix of old and
// new files. Staging folders of runs that were killed (their process is gone)
// are removed by the next StagedFolder beside the same target.
#pragma once

#include <string>

namespace Tool {

class StagedFolder {
 public:
  // `keepExisting`: the target's present files stay unless the run writes
  // over them (a folder that holds other things than this command's
  // output); otherwise the target's content is replaced by the new one.
  StagedFolder(std::string target, bool keepExisting);
  ~StagedFolder();
  StagedFolder(const StagedFolder&) = delete;
  StagedFolder& operator=(const StagedFolder&) = delete;

  // Where the run writes (the staging folder).
  const std::string& path() const { return staging_; }
  std::string file(const std::string& name) const { return staging_ + "/" + name; }
  // Puts the new content in place; throws CommandError when it cannot.
  void commit();

 private:
  std::string target_;
  std::string staging_;
  bool committed_ = false;
};

}  // namespace Tool
