// A new tree for an install directory, built beside it on the same file
// system and exchanged with it in one step, so that the install directory
// always holds one whole release: the old one or the new one.
//
// The staging directory is "<parent>/.<name>.staging" beside the install
// directory "<parent>/<name>"; the old tree goes to "<parent>/.<name>.old" only
// when the two cannot be exchanged at once. A journal record "tree_<id>" names
// both from before the staging directory is made until both are gone.
#pragma once

#include <string>

namespace vesk::dataupdate {

class StagedTree {
 public:
  // Writes the journal record and makes an empty staging directory. Throws
  // UpdateError.
  StagedTree(std::string id, std::string install_prefix);
  // Unless exchanged: removes the staging directory and the record. Never throws.
  ~StagedTree();
  StagedTree(const StagedTree&) = delete;
  StagedTree& operator=(const StagedTree&) = delete;

  const std::string& path() const { return staging_; }

  // Fills the staging directory with hard links to every installed file (and
  // copies of links and directories), the start of a tree that differs from
  // the installed one in a few files. A file to change must be unlinked in
  // the staging tree first, never written through.
  void LinkInstalledFiles() const;

  // Under the database's use lock: the staging tree becomes the install
  // directory; then the old tree and the record are removed. Throws UpdateError.
  void Exchange();

 private:
  std::string id_;
  std::string install_;
  std::string staging_;
  std::string old_;
  bool exchanged_ = false;
};

// A file (or anything but a directory) in the place of `install_prefix` is
// removed, with a warning, so that the directory can be installed there: the
// path is the library's own. Throws UpdateError.
void RemoveNonDirectory(const std::string& install_prefix);

// Finishes or undoes every exchange a killed run left in the journal, and logs
// what it did. The caller holds "update_any.lock". Never throws.
void RecoverStagedTrees();

}  // namespace vesk::dataupdate
