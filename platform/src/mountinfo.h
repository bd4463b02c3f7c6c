// Reading /proc/self/mountinfo: the mount table the volume functions work from.
#pragma once

#include <string>
#include <vector>

namespace vesk::platform {

struct MountEntry {
  long id = 0;
  long parent = 0;
  std::string mount_point;  // unescaped
  std::string options;      // per-mount options ("rw,relatime")
  std::string fs_type;      // "ext4", "tmpfs", "fuse.sshfs", ...
};

// Undoes the kernel's octal escapes ("\040" for a space, "\134" for "\").
std::string UnescapeMountField(const std::string& field);

// The entries of a mountinfo text in file order; malformed lines are skipped.
std::vector<MountEntry> ParseMountInfo(const std::string& text);

// Drops mounts hidden by another mount stacked on the same point (the hidden
// one is the parent of the one on top), keeping file order.
std::vector<MountEntry> VisibleMounts(const std::vector<MountEntry>& entries);

// The visible mount that holds the absolute, canonical `path` (longest mount
// point that is `path` or one of its parent directories); nullptr when none.
const MountEntry* HoldingMount(const std::vector<MountEntry>& visible, const std::string& path);

// True for "/volume" followed by zero or more decimal digits, nothing else.
bool IsDataVolumePath(const std::string& path);

// True for the types of file systems served over a network.
bool IsNetworkFileSystem(const std::string& fs_type);

}  // namespace vesk::platform
