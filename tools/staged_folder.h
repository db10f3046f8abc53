// A folder of several output files that is replaced as a whole or not at
// all. The new content is written into a staging folder beside the target
// (".NAME.staging-PID"), which starts as a copy of the target made of hard
// links when the target's other files are to be kept; commit() then swaps
// the two folders in one step (renameat2 with RENAME_EXCHANGE) and removes
// the old content. Until commit() the target is untouched: a run that fails,
// throws or is killed leaves what was there before, never a mix of old and
// new files. Staging folders of runs that were killed (their process is gone)
// are removed by the next StagedFolder beside the same target.
//
// A folder a command owns whole (the demo's, a report's) is replaced only
// when it holds nothing but what such a run wrote: commit() leaves a list of
// every file it put there, with its size and a hash of its bytes
// (".orbivane-written"), and checkOwned() refuses a folder holding a file
// that is not on that list or was changed since, naming it.
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
  // Finishes the new content (a folder that replaces the target's content
  // whole lists what it wrote), so that commit() is one rename.
  void prepare();
  // Puts the new content in place (prepared first if it was not); throws
  // CommandError when it cannot.
  void commit();

  // Removes ".NAME.staging-PID" folders and files beside `target` whose
  // process is gone (the leftovers of killed runs).
  static void removeStale(const std::string& target);
  // Where a file that is to replace `target` is written first, beside it.
  static std::string stagedFile(const std::string& target);

  // Throws CommandError unless `folder` is missing, empty, or holds only
  // the files an earlier run listed, unchanged. `what` names that run in
  // the message ("demo", "report"), `option` the option that chose the folder.
  static void checkOwned(const std::string& folder, const std::string& what, const std::string& option);

 private:
  std::string target_;
  std::string staging_;
  bool keepExisting_ = false;
  bool prepared_ = false;
  bool committed_ = false;
};

}  // namespace Tool
