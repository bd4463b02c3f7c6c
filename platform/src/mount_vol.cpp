#include "vesk/mount_vol.h"

#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "file_util.h"
#include "last_error.h"
#include "mountinfo.h"

namespace vesk::platform {

std::string UnescapeMountField(const std::string& field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const char a = field[i + 1], b = field[i + 2], c = field[i + 3];
      if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
        out.push_back(static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

std::vector<MountEntry> ParseMountInfo(const std::string& text) {
  std::vector<MountEntry> entries;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    // Fields are separated by single spaces; spaces inside a field are escaped.
    std::vector<std::string> fields;
    std::istringstream words(line);
    for (std::string word; words >> word;)
      fields.push_back(word);
    if (fields.size() < 7)
      continue;
    size_t separator = 6;  // optional fields ("shared:1", ...) end at a lone "-"
    while (separator < fields.size() && fields[separator] != "-")
      ++separator;
    if (separator + 1 >= fields.size())
      continue;
    MountEntry entry;
    char* end = nullptr;
    entry.id = std::strtol(fields[0].c_str(), &end, 10);
    if (*end != '\0')
      continue;
    entry.parent = std::strtol(fields[1].c_str(), &end, 10);
    if (*end != '\0')
      continue;
    entry.mount_point = UnescapeMountField(fields[4]);
    entry.options = fields[5];
    entry.fs_type = UnescapeMountField(fields[separator + 1]);
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::vector<MountEntry> VisibleMounts(const std::vector<MountEntry>& entries) {
  std::set<std::pair<long, std::string>> covered;  // (parent id, point) of every mount
  for (const auto& entry : entries)
    covered.emplace(entry.parent, entry.mount_point);
  std::vector<MountEntry> visible;
  for (const auto& entry : entries) {
    if (covered.count({entry.id, entry.mount_point}) == 0)
      visible.push_back(entry);
  }
  return visible;
}

const MountEntry* HoldingMount(const std::vector<MountEntry>& visible, const std::string& path) {
  const MountEntry* best = nullptr;
  for (const auto& entry : visible) {
    const std::string& point = entry.mount_point;
    const bool holds = point == "/" || path == point ||
                       (path.size() > point.size() && path.compare(0, point.size(), point) == 0 &&
                        path[point.size()] == '/');
    // The later of two equal points was mounted later and is the one in use.
    if (holds && (best == nullptr || point.size() >= best->mount_point.size()))
      best = &entry;
  }
  return best;
}

bool IsDataVolumePath(const std::string& path) {
  static constexpr char kPrefix[] = "/volume";
  constexpr size_t kPrefixLength = sizeof kPrefix - 1;
  if (path.compare(0, kPrefixLength, kPrefix) != 0)
    return false;
  for (size_t i = kPrefixLength; i < path.size(); ++i) {
    if (path[i] < '0' || path[i] > '9')
      return false;
  }
  return true;
}

bool IsNetworkFileSystem(const std::string& fs_type) {
  // Clients of remote storage: a volume there may vanish with the network.
  static const char* const kNetwork[] = {"nfs",
                                         "nfs4",
                                         "cifs",
                                         "smb3",
                                         "smbfs",
                                         "ncpfs",
                                         "9p",
                                         "ceph",
                                         "glusterfs",
                                         "afs",
                                         "coda",
                                         "lustre",
                                         "davfs",
                                         "fuse.sshfs",
                                         "fuse.glusterfs",
                                         "fuse.s3fs",
                                         "fuse.ceph-fuse",
                                         "fuse.rclone",
                                         "fuse.davfs2",
                                         "fuse.gcsfuse",
                                         "fuse.smbnetfs",
                                         "fuse.curlftpfs",
                                         "fuse.moosefs",
                                         "fuse.lizardfs"};
  return std::any_of(std::begin(kNetwork), std::end(kNetwork),
                     [&](const char* type) { return fs_type == type; });
}

namespace {

constexpr size_t kMountInfoLimit = 16 << 20;

int ReadMountTable(std::vector<MountEntry>* visible) {
  std::string text;
  if (int error = ReadWholeFile("/proc/self/mountinfo", kMountInfoLimit, &text); error != 0)
    return error;
  *visible = VisibleMounts(ParseMountInfo(text));
  return 0;
}

bool HasOption(const std::string& options, const std::string& option) {
  std::istringstream list(options);
  for (std::string item; std::getline(list, item, ',');) {
    if (item == option)
      return true;
  }
  return false;
}

// The directories named by VESK_VOLUMES, empty entries skipped; false when the
// variable is unset (the mount table decides then).
bool ConfiguredVolumes(std::vector<std::string>* paths) {
  const char* value = std::getenv("VESK_VOLUMES");
  if (value == nullptr)
    return false;
  std::istringstream list(value);
  for (std::string item; std::getline(list, item, ':');) {
    if (!item.empty())
      paths->push_back(item);
  }
  return true;
}

// Compares mount paths the way an operator writes them: "/volume1/" is "/volume1".
std::string WithoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/')
    path.pop_back();
  return path;
}

void CopyText(char* target, size_t size, const std::string& text) {
  const size_t n = std::min(text.size(), size - 1);
  std::memcpy(target, text.data(), n);
  target[n] = '\0';
}

// Fills the size and readiness fields; returns whether statvfs answered and
// whether it reports a read-only file system.
void FillFromStatvfs(const std::string& path, VESKVolInfo* info, bool* read_only) {
  struct statvfs fs;
  *read_only = true;
  if (statvfs(path.c_str(), &fs) != 0)
    return;
  info->stat_ready = 1;
  info->avail_bytes =
      static_cast<unsigned long long>(fs.f_bavail) * static_cast<unsigned long long>(fs.f_frsize);
  *read_only = (fs.f_flag & ST_RDONLY) != 0;
}

// A volume from the mount table: mounted by definition.
int FillMounted(const MountEntry& entry, VESKVolInfo* info) {
  if (entry.mount_point.size() >= sizeof info->mount_path)
    return ENAMETOOLONG;
  CopyText(info->mount_path, sizeof info->mount_path, entry.mount_point);
  CopyText(info->fs_type, sizeof info->fs_type, entry.fs_type);
  info->mounted = 1;
  bool read_only = true;
  FillFromStatvfs(entry.mount_point, info, &read_only);
  if (!read_only && HasOption(entry.options, "rw"))
    info->flags |= VESK_VOL_FLAG_RW;
  return 0;
}

// A volume named by VESK_VOLUMES: "mounted" when the directory exists,
// read-write when this process may write it on a writable file system.
int FillConfigured(const std::string& path, const std::vector<MountEntry>& visible,
                   VESKVolInfo* info) {
  if (path.size() >= sizeof info->mount_path)
    return ENAMETOOLONG;
  CopyText(info->mount_path, sizeof info->mount_path, path);
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    return 0;
  info->mounted = 1;
  char canonical[PATH_MAX];
  if (realpath(path.c_str(), canonical) != nullptr) {
    if (const MountEntry* holder = HoldingMount(visible, canonical))
      CopyText(info->fs_type, sizeof info->fs_type, holder->fs_type);
  }
  bool read_only = true;
  FillFromStatvfs(path, info, &read_only);
  if (!read_only && access(path.c_str(), W_OK) == 0)
    info->flags |= VESK_VOL_FLAG_RW;
  return 0;
}

struct ListDeleter {
  void operator()(VESKVolInfo* list) const { VESKMountVolInfoFree(list); }
};
using VolumeList = std::unique_ptr<VESKVolInfo, ListDeleter>;

// Appends a zeroed record to the list that `head` owns; nullptr when memory
// is short. The list owns the record from the start, so no path leaks it.
VESKVolInfo* Append(VolumeList* head, VESKVolInfo** tail) {
  auto* record = static_cast<VESKVolInfo*>(std::calloc(1, sizeof(VESKVolInfo)));
  if (record == nullptr)
    return nullptr;
  if (*tail == nullptr)
    head->reset(record);
  else
    (*tail)->next = record;
  *tail = record;
  return record;
}

}  // namespace
}  // namespace vesk::platform

using vesk::platform::Caught;
using vesk::platform::Fail;
using vesk::platform::MountEntry;
using vesk::platform::SetLastError;

extern "C" VESKVolInfo* VESKMountVolAllEnum(int /*flags*/, int /*mounted_only*/) try {
  std::vector<std::string> configured;
  const bool from_environment = vesk::platform::ConfiguredVolumes(&configured);
  std::vector<MountEntry> visible;
  int error = vesk::platform::ReadMountTable(&visible);
  // Configured volumes need the table only for their fs_type.
  if (error != 0 && !from_environment) {
    SetLastError(error);
    return nullptr;
  }

  vesk::platform::VolumeList head;
  VESKVolInfo* tail = nullptr;
  if (from_environment) {
    for (const auto& path : configured) {
      VESKVolInfo* record = vesk::platform::Append(&head, &tail);
      error = record ? vesk::platform::FillConfigured(path, visible, record) : ENOMEM;
      if (error != 0) {
        SetLastError(error);
        return nullptr;
      }
    }
  } else {
    for (const auto& entry : visible) {
      if (!vesk::platform::IsDataVolumePath(entry.mount_point))
        continue;
      VESKVolInfo* record = vesk::platform::Append(&head, &tail);
      error = record ? vesk::platform::FillMounted(entry, record) : ENOMEM;
      if (error != 0) {
        SetLastError(error);
        return nullptr;
      }
    }
  }
  SetLastError(0);  // an empty list is no failure: the last error tells them apart
  return head.release();
} catch (...) {
  return Caught(static_cast<VESKVolInfo*>(nullptr));
}

extern "C" int VESKMountVolInfoGet(const char* path, VESKVolInfo* info) try {
  if (path == nullptr || info == nullptr)
    return Fail(EINVAL);
  const std::string wanted = vesk::platform::WithoutTrailingSlash(path);
  std::vector<std::string> configured;
  const bool from_environment = vesk::platform::ConfiguredVolumes(&configured);
  std::vector<MountEntry> visible;
  int error = vesk::platform::ReadMountTable(&visible);
  if (error != 0 && !from_environment)
    return Fail(error);

  VESKVolInfo record{};
  if (from_environment) {
    const std::string* match = nullptr;
    for (const auto& candidate : configured) {
      if (vesk::platform::WithoutTrailingSlash(candidate) == wanted) {
        match = &candidate;
        break;
      }
    }
    if (match == nullptr)
      return Fail(ENODEV);
    if (error = vesk::platform::FillConfigured(*match, visible, &record); error != 0)
      return Fail(error);
    if (!record.mounted)
      return Fail(ENOENT);
  } else {
    if (!vesk::platform::IsDataVolumePath(wanted))
      return Fail(ENODEV);
    const MountEntry* found = nullptr;
    for (const auto& entry : visible) {
      if (entry.mount_point == wanted)
        found = &entry;
    }
    if (found == nullptr)
      return Fail(ENOENT);
    if (error = vesk::platform::FillMounted(*found, &record); error != 0)
      return Fail(error);
  }
  *info = record;
  SetLastError(0);
  return 0;
} catch (...) {
  return Caught(-1);
}

extern "C" void VESKMountVolInfoFree(VESKVolInfo* list) {
  while (list != nullptr) {
    VESKVolInfo* next = list->next;
    std::free(list);
    list = next;
  }
}

extern "C" int VESKVolumeServicePolicy(const VESKVolInfo* info) try {
  if (info == nullptr)
    return 0;
  if ((info->flags & VESK_VOL_FLAG_RW) == 0)
    return 0;
  // The record may come from anywhere: its text need not be terminated.
  const std::string fs_type(info->fs_type, strnlen(info->fs_type, sizeof info->fs_type));
  return vesk::platform::IsNetworkFileSystem(fs_type) ? 0 : 1;
} catch (...) {
  return Caught(0);
}
