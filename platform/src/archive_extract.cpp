#include "archive_extract.h"

#include <archive.h>
#include <archive_entry.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "entry_rules.h"
#include "verified_stream.h"
#include "vesk_internal/archive_ptr.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::platform::archive {
namespace {

using Visitor = std::function<Status(struct archive*, struct archive_entry*)>;

std::string ArchiveError(struct archive* a, const char* fallback) {
  const char* text = archive_error_string(a);
  return text != nullptr ? text : fallback;
}

// Reads every entry header of the verified archive in order, handing each to
// `visit`; stops at the first failure. Entry data not read by `visit` is read
// (and hashed) by libarchive on the way to the next header.
Status ForEachEntry(const VerifiedPackage& package, const Visitor& visit) {
  ArchiveReadPtr reader(archive_read_new());
  if (!reader)
    return Fail(VESKARCHIVE_E_INTERNAL, "archive_read_new failed");
  archive_read_support_format_tar(reader.get());
  archive_read_support_format_empty(reader.get());
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_filter_xz(reader.get());
  archive_read_support_filter_zstd(reader.get());

  VerifiedStream stream(package);
  Status s = stream.Open(reader.get());
  if (s.code == VESKARCHIVE_E_FORMAT) {
    Status changed = stream.Finish();  // unreadable because it changed?
    return changed.ok() ? s : changed;
  }
  if (!s.ok())
    return s;
  for (;;) {
    struct archive_entry* entry = nullptr;
    const int r = archive_read_next_header(reader.get(), &entry);
    if (r == ARCHIVE_EOF)
      break;
    if (r < ARCHIVE_WARN) {
      // Damage in signed bytes means they changed; otherwise the signer signed a bad archive.
      Status changed = stream.Finish();
      return changed.ok() ? Fail(VESKARCHIVE_E_FORMAT, ArchiveError(reader.get(), "bad archive"))
                          : changed;
    }
    s = visit(reader.get(), entry);
    if (!s.ok())
      return s;
  }
  return stream.Finish();
}

bool LstatAt(int dir_fd, const std::string& name, struct stat* st) {
  return fstatat(dir_fd, name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

bool IsLinkOnDisk(int dir_fd, const std::string& name) {
  struct stat st;
  return LstatAt(dir_fd, name, &st) && S_ISLNK(st.st_mode);
}

// The requested names, split, with a flag per name telling whether an entry matched it.
struct Selection {
  bool all = true;
  std::vector<NameParts> names;
  std::vector<bool> matched;

  bool Selects(const NameParts& parts) {
    if (all)
      return true;
    bool selected = false;
    for (size_t i = 0; i < names.size(); ++i) {
      const NameParts& n = names[i];
      if (n.size() <= parts.size() && std::equal(n.begin(), n.end(), parts.begin())) {
        matched[i] = true;
        selected = true;
      }
    }
    return selected;
  }
};

Status MakeSelection(const char* const* entries, Selection* selection) {
  if (entries == nullptr)
    return {};
  selection->all = false;
  for (const char* const* e = entries; *e != nullptr; ++e) {
    NameParts parts;
    Status s = SplitEntryName(*e, &parts);
    if (!s.ok())
      return Fail(VESKARCHIVE_E_INVALID, std::string("requested entry ") + *e + ": " + s.detail);
    selection->names.push_back(parts);
    selection->matched.push_back(false);
  }
  return {};
}

// Entry checks common to both passes. `parts` is empty for the target itself.
Status CheckEntry(struct archive_entry* entry, NameParts* parts) {
  Status s = SplitEntryName(archive_entry_pathname(entry), parts);
  if (!s.ok())
    return s;
  s = CheckEntryKind(entry);
  if (!s.ok())
    return s;
  if (parts->empty() && archive_entry_filetype(entry) != AE_IFDIR)
    return Fail(VESKARCHIVE_E_BAD_NAME, "an entry naming the target itself");
  return {};
}

// What the checking pass learns: the archive's symbolic links and every
// directory some entry lies below. Memory grows with those, never with data.
struct ScanResult {
  std::set<std::string> links;
  std::set<std::string> parent_dirs;
};

Status ScanEntries(const VerifiedPackage& package, int target_fd, bool overwrite,
                   Selection* selection, ScanResult* scan) {
  struct PendingLink {
    NameParts name;
    std::string target;
  };
  std::vector<PendingLink> pending;
  Status s = ForEachEntry(package, [&](struct archive*, struct archive_entry* entry) {
    NameParts parts;
    Status e = CheckEntry(entry, &parts);
    if (!e.ok() || parts.empty())
      return e;
    const std::string name = JoinName(parts);
    for (size_t n = 1; n < parts.size(); ++n)
      scan->parent_dirs.insert(JoinName(parts, n));
    if (archive_entry_filetype(entry) == AE_IFLNK) {
      scan->links.insert(name);
      const char* target = archive_entry_symlink(entry);
      pending.push_back({parts, target != nullptr ? target : ""});
    }
    if (!selection->Selects(parts) || overwrite)
      return Status{};
    // Without overwriting, what is already in the target must not be in the way.
    e = CheckNotBelowLink(parts, [&](const std::string& n) { return IsLinkOnDisk(target_fd, n); });
    if (!e.ok())
      return e;
    struct stat st;
    if (LstatAt(target_fd, name, &st) &&
        !(S_ISDIR(st.st_mode) && archive_entry_filetype(entry) == AE_IFDIR))
      return Fail(VESKARCHIVE_E_EXISTS, name);
    return Status{};
  });
  if (!s.ok())
    return s;
  for (const auto& link : scan->links) {
    if (scan->parent_dirs.count(link) != 0)
      return Fail(VESKARCHIVE_E_THROUGH_LINK, "entries below the link " + link);
  }
  const IsLinkFn is_link = [&](const std::string& name) {
    return scan->links.count(name) != 0 || IsLinkOnDisk(target_fd, name);
  };
  for (const auto& link : pending) {
    s = CheckLinkTarget(link.name, link.target.c_str(), is_link);
    if (!s.ok())
      return s;
  }
  for (size_t i = 0; i < selection->names.size(); ++i) {
    if (!selection->matched[i])
      return Fail(VESKARCHIVE_E_ENTRY_MISSING, JoinName(selection->names[i]));
  }
  return {};
}

Status CopyData(struct archive* reader, struct archive* disk, const std::string& name) {
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    int r = archive_read_data_block(reader, &block, &size, &offset);
    if (r == ARCHIVE_EOF)
      return {};
    if (r < ARCHIVE_WARN)
      return Fail(VESKARCHIVE_E_FORMAT, name + ": " + ArchiveError(reader, "bad entry data"));
    // libarchive reports a failed write of data (a full disk) as a mere
    // warning, then extends the file to its size with a hole at the end, which
    // would pass for the whole file: any warning here is a failure.
    if (archive_write_data_block(disk, block, size, offset) < ARCHIVE_OK)
      return Fail(VESKARCHIVE_E_WRITE, name + ": " + ArchiveError(disk, "write failed"));
  }
}

// Runs with the working directory inside the target (see WorkingDirectory), so
// entry names stay relative and libarchive's refusal of absolute names applies.
Status WriteEntries(const VerifiedPackage& package, int target_fd, bool overwrite,
                    Selection selection, const ScanResult& scan) {
  ArchiveWritePtr disk(archive_write_disk_new());
  if (!disk)
    return Fail(VESKARCHIVE_E_INTERNAL, "archive_write_disk_new failed");
  const int options = ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                      ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS |
                      (overwrite ? ARCHIVE_EXTRACT_UNLINK : ARCHIVE_EXTRACT_NO_OVERWRITE);
  archive_write_disk_set_options(disk.get(), options);

  // With overwriting, links met on the way are replaced by libarchive, not followed.
  const IsLinkFn is_parent_link = [&](const std::string& name) {
    return scan.links.count(name) != 0 || (!overwrite && IsLinkOnDisk(target_fd, name));
  };
  const IsLinkFn is_link = [&](const std::string& name) {
    return scan.links.count(name) != 0 || IsLinkOnDisk(target_fd, name);
  };
  Status s = ForEachEntry(package, [&](struct archive* reader, struct archive_entry* entry) {
    NameParts parts;
    Status e = CheckEntry(entry, &parts);
    if (!e.ok() || parts.empty() || !selection.Selects(parts))
      return e;
    e = CheckNotBelowLink(parts, is_parent_link);
    if (!e.ok())
      return e;
    const std::string name = JoinName(parts);
    if (archive_entry_filetype(entry) == AE_IFLNK) {
      e = CheckLinkTarget(parts, archive_entry_symlink(entry), is_link);
      if (!e.ok())
        return e;
    }
    struct stat st;
    if (LstatAt(target_fd, name, &st)) {
      if (S_ISDIR(st.st_mode) && archive_entry_filetype(entry) == AE_IFDIR)
        return Status{};  // an existing directory is kept as it is
      if (!overwrite)
        return Fail(VESKARCHIVE_E_EXISTS, name);
    }
    archive_entry_set_pathname(entry, name.c_str());
    if (archive_write_header(disk.get(), entry) < ARCHIVE_WARN)
      return Fail(VESKARCHIVE_E_WRITE, name + ": " + ArchiveError(disk.get(), "cannot create"));
    if (archive_entry_filetype(entry) == AE_IFREG) {
      e = CopyData(reader, disk.get(), name);
      if (!e.ok())
        return e;
    }
    if (archive_write_finish_entry(disk.get()) < ARCHIVE_WARN)
      return Fail(VESKARCHIVE_E_WRITE, name + ": " + ArchiveError(disk.get(), "cannot finish"));
    return Status{};
  });
  if (archive_write_close(disk.get()) < ARCHIVE_WARN && s.ok())
    return Fail(VESKARCHIVE_E_WRITE, ArchiveError(disk.get(), "cannot complete the extraction"));
  return s;
}

// Moves the process into the target for the guard's life and back afterwards.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(int target_fd) : saved_(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    entered_ = saved_ && fchdir(target_fd) == 0;
  }
  ~WorkingDirectory() {
    // Nothing better can be done if going back fails; the descriptor stays valid.
    if (entered_ && fchdir(saved_.get()) != 0)
      entered_ = false;
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;
  bool entered() const { return entered_; }

 private:
  UniqueFd saved_;
  bool entered_ = false;
};

}  // namespace

Status ExtractPackage(const VerifiedPackage& package, int target_fd, const char* const* entries,
                      int flags) {
  if ((flags & ~VESKARCHIVE_EXTRACT_OVERWRITE) != 0)
    return Fail(VESKARCHIVE_E_INVALID, "unknown extraction flags " + std::to_string(flags));
  const bool overwrite = (flags & VESKARCHIVE_EXTRACT_OVERWRITE) != 0;
  Selection selection;
  Status s = MakeSelection(entries, &selection);
  if (!s.ok())
    return s;
  s = CheckUnchanged(package);
  if (!s.ok())
    return s;

  ScanResult scan;
  Selection scan_selection = selection;
  s = ScanEntries(package, target_fd, overwrite, &scan_selection, &scan);
  if (!s.ok())
    return s;

  WorkingDirectory cwd(target_fd);
  if (!cwd.entered())
    return Fail(VESKARCHIVE_E_WRITE,
                std::string("cannot enter the target: ") + std::strerror(errno));
  return WriteEntries(package, target_fd, overwrite, selection, scan);
}

}  // namespace vesk::platform::archive
