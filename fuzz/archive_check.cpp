#include "archive_check.h"

#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "harness.h"
#include "signing.h"
#include "vesk/archive.h"
#include "vesk_internal/archive_ptr.h"
#include "vesk_internal/envelope.h"

namespace vesk::fuzz::archive {
namespace {

namespace fs = boost::filesystem;

// The name asked for besides the first entry's with Options::select_missing.
constexpr char kMissingName[] = "not-in-the-archive";

// File contents up to this size are compared byte for byte; larger ones (a
// sparse entry may announce any size) by size only.
constexpr std::uint64_t kMaxCompared = 1U << 20;

// ------------------------------------------------------------------ file trees

// One object of a directory tree, as lstat and readlink see it.
struct Node {
  enum Kind { kFile, kDir, kLink, kOther };
  Kind kind = kOther;
  std::string data;  // a file's content (when known) or a link's text
  std::uint64_t size = 0;
  bool content_known = true;
  // Compared only for the tree outside the target.
  mode_t mode = 0;
  std::int64_t mtime_sec = 0;
  long mtime_nsec = 0;
};
using Tree = std::map<std::string, Node>;

const char* KindName(Node::Kind kind) {
  switch (kind) {
    case Node::kFile:
      return "file";
    case Node::kDir:
      return "directory";
    case Node::kLink:
      return "link";
    case Node::kOther:
      break;
  }
  return "special file";
}

std::string ReadPrefix(const std::string& path, std::uint64_t size) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0)
    Fail("cannot read " + path);
  std::string bytes(static_cast<size_t>(size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = read(fd, &bytes[done], bytes.size() - done);
    if (n <= 0)
      break;
    done += static_cast<size_t>(n);
  }
  close(fd);
  bytes.resize(done);
  return bytes;
}

std::string ReadWhole(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
    Fail("cannot read " + path);
  return ReadPrefix(path, static_cast<std::uint64_t>(st.st_size));
}

std::string ReadLinkText(const std::string& path) {
  std::vector<char> buf(PATH_MAX + 1);
  const ssize_t n = readlink(path.c_str(), buf.data(), buf.size());
  if (n < 0)
    Fail("cannot read the link " + path);
  return std::string(buf.data(), static_cast<size_t>(n));
}

// "dir/name".
std::string Child(const std::string& dir, const std::string& name) {
  std::string path = dir;
  path += '/';
  path += name;
  return path;
}

// The names in `dir`, without "." and "..".
std::vector<std::string> Names(const std::string& dir) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
  if (!listing)
    Fail("cannot list " + dir);
  while (const dirent* e = readdir(listing.get())) {
    const std::string name = e->d_name;
    if (name != "." && name != "..")
      names.push_back(name);
  }
  return names;
}

// Every object below `dir` by its path relative to `dir`, links not followed;
// paths in `skip` (relative) are left out together with everything below them.
void ListInto(const std::string& dir, const std::string& prefix, const std::set<std::string>& skip,
              Tree* tree) {
  const std::vector<std::string> names = Names(dir);
  for (const std::string& name : names) {
    const std::string relative = prefix.empty() ? name : Child(prefix, name);
    if (skip.count(relative) != 0)
      continue;
    const std::string path = Child(dir, name);
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
      Fail("cannot lstat " + path);
    Node node;
    node.mode = st.st_mode & 07777;
    node.mtime_sec = st.st_mtim.tv_sec;
    node.mtime_nsec = st.st_mtim.tv_nsec;
    node.size = static_cast<std::uint64_t>(st.st_size);
    if (S_ISREG(st.st_mode)) {
      node.kind = Node::kFile;
      node.content_known = node.size <= kMaxCompared;
      if (node.content_known)
        node.data = ReadPrefix(path, node.size);
    } else if (S_ISDIR(st.st_mode)) {
      node.kind = Node::kDir;
      node.size = 0;
    } else if (S_ISLNK(st.st_mode)) {
      node.kind = Node::kLink;
      node.data = ReadLinkText(path);
    }
    const bool descend = node.kind == Node::kDir;
    tree->emplace(relative, std::move(node));
    if (descend)
      ListInto(path, relative, skip, tree);
  }
}

Tree ListTree(const std::string& dir, const std::set<std::string>& skip = {}) {
  Tree tree;
  ListInto(dir, "", skip, &tree);
  return tree;
}

std::string Describe(const Node& n, bool with_meta) {
  std::string text = KindName(n.kind);
  if (n.kind == Node::kFile) {
    text += " of " + std::to_string(n.size) + " bytes";
    if (n.content_known && n.data.size() <= 64)
      text += " \"" + n.data + "\"";
  }
  if (n.kind == Node::kLink)
    text += " -> \"" + n.data + "\"";
  if (with_meta) {
    char meta[96];
    std::snprintf(meta, sizeof meta, " mode %04o mtime %lld.%09ld", static_cast<unsigned>(n.mode),
                  static_cast<long long>(n.mtime_sec), n.mtime_nsec);
    text += meta;
  }
  return text;
}

bool SameNode(const Node& a, const Node& b, bool with_meta) {
  if (a.kind != b.kind || a.size != b.size)
    return false;
  if ((a.kind == Node::kFile && a.content_known && b.content_known) || a.kind == Node::kLink) {
    if (a.data != b.data)
      return false;
  }
  return !with_meta ||
         (a.mode == b.mode && a.mtime_sec == b.mtime_sec && a.mtime_nsec == b.mtime_nsec);
}

// The differences between two trees, one line each ("" when none).
std::string Compare(const Tree& expected, const Tree& got, bool with_meta) {
  std::string diff;
  for (const auto& [path, node] : expected) {
    const auto it = got.find(path);
    if (it == got.end())
      diff += "  missing " + path + " (" + Describe(node, with_meta) + ")\n";
    else if (!SameNode(node, it->second, with_meta))
      diff += "  " + path + ": " + Describe(it->second, with_meta) + " instead of " +
              Describe(node, with_meta) + "\n";
  }
  for (const auto& [path, node] : got) {
    if (expected.count(path) == 0)
      diff += "  unexpected " + path + " (" + Describe(node, with_meta) + ")\n";
  }
  return diff;
}

// Removes everything below `dir`, making directories writable first (an
// extracted directory may have any mode).
void RemoveContents(const std::string& dir) {
  const std::vector<std::string> names = Names(dir);
  for (const std::string& name : names) {
    const std::string path = Child(dir, name);
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      chmod(path.c_str(), 0700);
      RemoveContents(path);
      if (rmdir(path.c_str()) != 0)
        Fail("cannot remove " + path);
    } else if (unlink(path.c_str()) != 0) {
      Fail("cannot remove " + path);
    }
  }
}

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("/proc/self/fd"), closedir);
  if (!listing)
    return 0;
  while (readdir(listing.get()) != nullptr)
    ++count;
  return count;
}

std::string WorkingDirectory() {
  std::vector<char> buf(PATH_MAX + 1);
  if (getcwd(buf.data(), buf.size()) == nullptr)
    Fail("the working directory is gone");
  return buf.data();
}

// ------------------------------------------------------------------ sandbox

class Sandbox {
 public:
  Sandbox() : dir_("archive") {
    root_ = dir_ / "root";
    outside_ = dir_ / "outside";
    work_ = dir_ / "work";
    target_ = dir_ / "t1/t2/t3/target";
    for (const std::string& d : {root_, outside_, work_, target_})
      fs::create_directories(d);
    WriteBytes(outside_ + "/secret", "outside the target");
    if (setenv("VESKDBUD_ROOT", root_.c_str(), 1) != 0)
      Fail("cannot set VESKDBUD_ROOT");
    const EvpPkeyPtr key = SigningKey();
    const std::string keys = root_ + "/usr/vesk/etc/keys/" + std::to_string(kKeyType);
    fs::create_directories(keys);
    WriteBytes(keys + "/fuzz.pem", publish::PublicKeyPem(key.get()));
    baseline_ = Outside();
  }

  const std::string& target() const { return target_; }
  const std::string& outside() const { return outside_; }
  std::string package() const { return work_ + "/input.pkg"; }
  std::string archive() const { return work_ + "/input.tar"; }

  // Everything of the sandbox but the target's contents and the work files.
  Tree Outside() const { return ListTree(dir_.path(), {"work", "t1/t2/t3/target"}); }

  void CheckOutsideUnchanged() const {
    const std::string diff = Compare(baseline_, Outside(), true);
    if (!diff.empty())
      Fail("the extraction changed the sandbox outside the target:\n" + diff);
  }

  void ResetTarget(bool prefilled) const {
    chmod(target_.c_str(), 0755);
    RemoveContents(target_);
    if (!prefilled)
      return;
    fs::create_directory(target_ + "/d");
    WriteBytes(target_ + "/d/keep", "kept");
    WriteBytes(target_ + "/f", "old");
    if (symlink(outside_.c_str(), (target_ + "/out").c_str()) != 0 ||
        symlink("d", (target_ + "/in").c_str()) != 0)
      Fail("cannot prefill " + target_);
  }

 private:
  ScratchDir dir_;
  std::string root_, outside_, work_, target_;
  Tree baseline_;
};

const Sandbox& TheSandbox() {
  static const Sandbox sandbox;
  return sandbox;
}

// ------------------------------------------------------------------ the model

using Parts = std::vector<std::string>;

Parts Split(const std::string& name) {
  Parts parts;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string::npos)
      end = name.size();
    std::string part = name.substr(start, end - start);
    if (!part.empty() && part != ".")
      parts.push_back(std::move(part));
    start = end + 1;
  }
  return parts;
}

std::string Join(const Parts& parts, size_t count) {
  std::string name;
  for (size_t i = 0; i < count && i < parts.size(); ++i)
    name += (i > 0 ? "/" : "") + parts[i];
  return name;
}

// One archive entry as an independent libarchive reader sees it.
struct Entry {
  bool has_name = false;
  std::string name;
  int type = 0;
  bool hardlink = false;
  std::string symlink;
  std::string content;  // what extraction writes, when known
  std::uint64_t size = 0;
  bool content_known = true;
};

// Reads the data of a regular file entry as extraction writes it: blocks at
// their offsets, holes as zeros, the file cut or extended to the entry's size.
bool ReadData(struct archive* a, struct archive_entry* ae, Entry* entry) {
  const bool size_set = archive_entry_size_is_set(ae) != 0 && archive_entry_size(ae) >= 0;
  const std::uint64_t limit =
      size_set ? static_cast<std::uint64_t>(archive_entry_size(ae)) : UINT64_MAX;
  std::uint64_t end = 0;
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    const int r = archive_read_data_block(a, &block, &size, &offset);
    if (r == ARCHIVE_EOF)
      break;
    if (r < ARCHIVE_WARN)
      return false;
    if (offset < 0)
      return false;
    const auto from = static_cast<std::uint64_t>(offset);
    if (from >= limit)
      continue;
    const std::uint64_t to = std::min<std::uint64_t>(from + size, limit);
    end = std::max(end, to);
    if (!entry->content_known || to > kMaxCompared) {
      entry->content_known = false;
      continue;
    }
    if (entry->content.size() < to)
      entry->content.resize(static_cast<size_t>(to), '\0');
    std::memcpy(&entry->content[static_cast<size_t>(from)], block, static_cast<size_t>(to - from));
  }
  entry->size = size_set ? limit : end;
  if (entry->size > kMaxCompared)
    entry->content_known = false;
  if (entry->content_known)
    entry->content.resize(static_cast<size_t>(entry->size), '\0');
  else
    entry->content.clear();
  return true;
}

// The entries of `bytes`; false when the reader fails before the end (the
// entries read up to there are kept).
bool ReadEntries(const std::string& bytes, std::vector<Entry>* entries) {
  ArchiveReadPtr a(archive_read_new());
  if (!a)
    Fail("archive_read_new failed");
  archive_read_support_format_tar(a.get());
  archive_read_support_format_empty(a.get());
  archive_read_support_filter_gzip(a.get());
  archive_read_support_filter_xz(a.get());
  archive_read_support_filter_zstd(a.get());
  if (archive_read_open_memory(a.get(), bytes.data(), bytes.size()) != ARCHIVE_OK)
    return false;
  for (;;) {
    struct archive_entry* ae = nullptr;
    const int r = archive_read_next_header(a.get(), &ae);
    if (r == ARCHIVE_EOF)
      return true;
    if (r < ARCHIVE_WARN)
      return false;
    Entry entry;
    const char* name = archive_entry_pathname(ae);
    entry.has_name = name != nullptr;
    entry.name = name != nullptr ? name : "";
    entry.type = static_cast<int>(archive_entry_filetype(ae));
    entry.hardlink = archive_entry_hardlink(ae) != nullptr;
    const char* link = archive_entry_symlink(ae);
    entry.symlink = link != nullptr ? link : "";
    if (entry.type == AE_IFREG && !entry.hardlink && !ReadData(a.get(), ae, &entry))
      return false;
    entries->push_back(std::move(entry));
  }
}

void EraseBelow(const std::string& path, Tree* tree) {
  tree->erase(path);
  const std::string prefix = path + "/";
  auto it = tree->lower_bound(prefix);
  while (it != tree->end() && it->first.compare(0, prefix.size(), prefix) == 0)
    it = tree->erase(it);
}

// Why vesk/archive.h refuses the archive of `entries`, selected or not, in a
// target holding `before` ("" when it does not): a hostile name, kind or link,
// or an entry below a link of the archive.
std::string Hostile(const std::vector<Entry>& entries, const Tree& before) {
  std::string reason;
  const auto refuse = [&](const std::string& why) {
    if (reason.empty())
      reason = why;
  };
  std::set<std::string> archive_links;
  for (const Entry& e : entries) {
    if (e.type == AE_IFLNK && e.has_name)
      archive_links.insert(Join(Split(e.name), SIZE_MAX));
  }
  for (const Entry& e : entries) {
    const Parts parts = Split(e.name);
    const std::string name = "\"" + e.name + "\"";
    if (!e.has_name)
      refuse("an entry has no readable name");
    else if (!e.name.empty() && e.name[0] == '/')
      refuse(name + " is absolute");
    else if (std::find(parts.begin(), parts.end(), "..") != parts.end())
      refuse(name + " has a '..' component");
    if (e.hardlink)
      refuse(name + " is a hard link");
    else if (e.type != AE_IFREG && e.type != AE_IFDIR && e.type != AE_IFLNK)
      refuse(name + " is neither a file, a directory nor a symbolic link");
    if (parts.empty() && e.type != AE_IFDIR)
      refuse(name + " names the target itself");
    for (size_t n = 1; n < parts.size(); ++n) {
      if (archive_links.count(Join(parts, n)) != 0)
        refuse(name + " lies below the archive's link " + Join(parts, n));
    }
    if (e.type != AE_IFLNK || e.hardlink)
      continue;
    const std::string link = name + " -> \"" + e.symlink + "\"";
    if (e.symlink.empty() || e.symlink[0] == '/') {
      refuse(link + " is empty or absolute");
      continue;
    }
    Parts at(parts.begin(), parts.end() - (parts.empty() ? 0 : 1));
    for (const std::string& part : Split(e.symlink)) {
      if (part == "..") {
        if (at.empty()) {
          refuse(link + " climbs out of the target");
          break;
        }
        at.pop_back();
        continue;
      }
      at.push_back(part);
      const std::string through = Join(at, SIZE_MAX);
      const auto old = before.find(through);
      if (archive_links.count(through) != 0 ||
          (old != before.end() && old->second.kind == Node::kLink)) {
        std::string why = link;
        why += " passes through the link ";
        why += through;
        refuse(why);
        break;
      }
    }
  }
  return reason;
}

// What extracting the `entries` selected by the requested names `selection`
// (none: every entry) of an archive that is not hostile into a target holding
// `before` leaves there. Sets *conflict to the reason when what
// is in the target must make the extraction fail (without overwriting).
Tree Expect(const std::vector<Entry>& entries, const Options& options,
            const std::vector<Parts>& selection, const Tree& before, std::string* conflict) {
  const auto refuse = [&](const std::string& why) {
    if (conflict->empty())
      *conflict = why;
  };
  Tree tree = before;
  std::vector<bool> matched(selection.size(), false);
  for (const Entry& e : entries) {
    const Parts parts = Split(e.name);
    if (parts.empty())
      continue;
    bool selected = selection.empty();
    for (size_t i = 0; i < selection.size(); ++i) {
      const Parts& wanted = selection[i];
      if (wanted.size() <= parts.size() && std::equal(wanted.begin(), wanted.end(), parts.begin()))
        matched[i] = selected = true;
    }
    if (!selected)
      continue;
    for (size_t n = 1; n < parts.size(); ++n) {
      const std::string parent = Join(parts, n);
      auto it = tree.find(parent);
      if (it == tree.end()) {
        tree[parent].kind = Node::kDir;
      } else if (it->second.kind != Node::kDir) {
        if (!options.overwrite)
          refuse("\"" + e.name + "\" lies below the " + KindName(it->second.kind) + " " + parent +
                 " of the target");
        // With overwriting, a link in the way is replaced by a real directory (a
        // file there fails the extraction; were it to succeed, only a directory
        // could have taken its place).
        EraseBelow(parent, &tree);
        tree[parent].kind = Node::kDir;
      }
    }
    const std::string path = Join(parts, SIZE_MAX);
    const auto it = tree.find(path);
    if (it != tree.end()) {
      if (it->second.kind == Node::kDir && e.type == AE_IFDIR)
        continue;  // an existing directory is kept
      if (!options.overwrite)
        refuse("\"" + e.name + "\" exists in the target");
      EraseBelow(path, &tree);
    }
    Node& node = tree[path];
    if (e.type == AE_IFDIR) {
      node.kind = Node::kDir;
    } else if (e.type == AE_IFLNK) {
      node = Node{Node::kLink, e.symlink, e.symlink.size()};
    } else {
      node = Node{Node::kFile, e.content, e.size, e.content_known};
    }
  }
  for (size_t i = 0; i < selection.size(); ++i) {
    if (!matched[i])
      refuse("no entry is selected by the requested name \"" + Join(selection[i], SIZE_MAX) + "\"");
  }
  return tree;
}

// ------------------------------------------------------------------ the run

// The archive part of a package file that has a whole envelope around it.
bool ArchiveOf(const std::string& package, std::string* archive) {
  using namespace envelope;
  if (package.size() < kHeaderSize + kTrailerSize ||
      package.compare(0, kHeaderMagicSize, kHeaderMagic) != 0)
    return false;
  const std::uint64_t length =
      GetBig(reinterpret_cast<const std::uint8_t*>(package.data()) + kHeaderMagicSize, 8);
  if (length != package.size() - kHeaderSize - kTrailerSize)
    return false;
  *archive = package.substr(kHeaderSize, static_cast<size_t>(length));
  return true;
}

// Refusals that vesk/archive.h promises before the first entry is written.
bool RefusedBeforeWriting(int code) {
  switch (code) {
    case VESKARCHIVE_E_INVALID:
    case VESKARCHIVE_E_ABSOLUTE_PATH:
    case VESKARCHIVE_E_DOTDOT:
    case VESKARCHIVE_E_LINK_OUTSIDE:
    case VESKARCHIVE_E_HARDLINK:
    case VESKARCHIVE_E_DEVICE:
    case VESKARCHIVE_E_FIFO:
    case VESKARCHIVE_E_SPECIAL:
    case VESKARCHIVE_E_THROUGH_LINK:
    case VESKARCHIVE_E_BAD_NAME:
    case VESKARCHIVE_E_ENTRY_MISSING:
      return true;
    default:
      return false;
  }
}

// Failures a run may end with. Not: VESKARCHIVE_E_OPEN and E_NOT_REGULAR (the
// package is a regular file the harness wrote), E_CHANGED (nothing changes it)
// and E_INTERNAL (no exception, allocation or crypto failure is expected).
bool AcceptableFailure(int code) {
  switch (code) {
    case VESKARCHIVE_E_NO_ENVELOPE:
    case VESKARCHIVE_E_MALFORMED:
    case VESKARCHIVE_E_TRUNCATED:
    case VESKARCHIVE_E_KEY_TYPE:
    case VESKARCHIVE_E_UNKNOWN_KEY:
    case VESKARCHIVE_E_BAD_SIGNATURE:
    case VESKARCHIVE_E_FORMAT:
    case VESKARCHIVE_E_WRITE:
    case VESKARCHIVE_E_EXISTS:
      return true;
    default:
      return RefusedBeforeWriting(code);
  }
}

struct HandleFree {
  void operator()(veskarchive* h) const { veskarchive_free(h); }
};
using HandlePtr = std::unique_ptr<veskarchive, HandleFree>;

// Checks the result of one call against its handle's error code.
void CheckResult(const char* call, int result, veskarchive* handle) {
  const int code = veskarchive_error(handle);
  const char* detail = veskarchive_error_detail(handle);
  if (detail == nullptr)
    Fail(std::string(call) + ": no error detail");
  if ((result != 0) != (code == VESKARCHIVE_OK))
    Fail(std::string(call) + " returned " + std::to_string(result) + " with error code " +
         std::to_string(code) + " (" + detail + ")");
  if (result == 0 && !AcceptableFailure(code))
    Fail(std::string(call) + " failed with error code " + std::to_string(code) + " (" +
         veskarchive_strerror(code) + "): " + detail);
}

}  // namespace

EvpPkeyPtr SigningKey() {
  // Fixed, so that the seed packages in the source tree verify; trusted only
  // inside the fuzzing sandbox.
  static const unsigned char kSeed[32] = {0x76, 0x65, 0x73, 0x6b, 0x64, 0x62, 0x75, 0x64,
                                          0x2d, 0x66, 0x75, 0x7a, 0x7a, 0x2d, 0x6b, 0x65,
                                          0x79, 0x2d, 0x6e, 0x6f, 0x74, 0x2d, 0x61, 0x2d,
                                          0x73, 0x65, 0x63, 0x72, 0x65, 0x74, 0x21, 0x0a};
  EvpPkeyPtr key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, kSeed, sizeof kSeed));
  if (!key)
    Fail("cannot make the fuzzing key");
  return key;
}

Options OptionsFromByte(std::uint8_t byte) {
  Options options;
  options.overwrite = (byte & 1U) != 0;
  options.prefilled = (byte & 2U) != 0;
  options.select_first = (byte & 4U) != 0;
  options.select_missing = (byte & 8U) != 0;
  return options;
}

std::uint8_t ByteFromOptions(const Options& options) {
  return static_cast<std::uint8_t>((options.overwrite ? 1U : 0U) | (options.prefilled ? 2U : 0U) |
                                   (options.select_first ? 4U : 0U) |
                                   (options.select_missing ? 8U : 0U));
}

bool ExpectSuccessFromEnvironment() {
  const char* value = std::getenv("VESKDBUD_FUZZ_EXPECT_SUCCESS");
  return value != nullptr && *value != '\0';
}

void CheckPackage(const std::string& package, const Options& options, bool expect_success) {
  const Sandbox& sandbox = TheSandbox();
  sandbox.ResetTarget(options.prefilled);
  const Tree before = ListTree(sandbox.target());
  WriteBytes(sandbox.package(), package);

  // The model's view of the archive, and the name to select.
  std::string archive;
  std::vector<Entry> entries;
  const bool readable = ArchiveOf(package, &archive) && ReadEntries(archive, &entries);
  std::vector<const char*> selected;
  if (options.select_first && !entries.empty() && entries[0].has_name)
    selected.push_back(entries[0].name.c_str());
  if (options.select_missing)
    selected.push_back(kMissingName);
  std::vector<Parts> selection;
  for (const char* name : selected)
    selection.push_back(Split(name));
  selected.push_back(nullptr);
  const char* const* wanted = selected.size() > 1 ? selected.data() : nullptr;

  const std::size_t descriptors = OpenDescriptors();
  const std::string cwd = WorkingDirectory();
  int code = VESKARCHIVE_OK;
  std::string detail;
  bool opened = false;
  {
    HandlePtr handle(veskarchive_init(sandbox.target().c_str()));
    if (!handle)
      Fail("veskarchive_init refused the target directory");
    int ok = veskarchive_open_with_keytype(handle.get(), sandbox.package().c_str(), kKeyType);
    CheckResult("veskarchive_open_with_keytype", ok, handle.get());
    opened = ok != 0;
    if (opened) {
      ok = veskarchive_extract_multiple(handle.get(), wanted,
                                        options.overwrite ? VESKARCHIVE_EXTRACT_OVERWRITE : 0);
      CheckResult("veskarchive_extract_multiple", ok, handle.get());
    }
    code = veskarchive_error(handle.get());
    detail = veskarchive_error_detail(handle.get());
  }
  if (WorkingDirectory() != cwd)
    Fail("the working directory is " + WorkingDirectory() + ", not " + cwd);
  if (OpenDescriptors() != descriptors)
    Fail("a descriptor was left open (" + std::to_string(OpenDescriptors()) + " instead of " +
         std::to_string(descriptors) + ")");
  sandbox.CheckOutsideUnchanged();

  const Tree after = ListTree(sandbox.target());
  const std::string hostile = Hostile(entries, before);
  if (code != VESKARCHIVE_OK) {
    if (expect_success)
      Fail(std::string("a valid input failed: ") + veskarchive_strerror(code) + ": " + detail);
    if (!opened)
      return;
    // The checking pass reads the whole archive before the first entry is
    // written: a hostile archive is refused there, by one of its own refusals,
    // the damage of a later header, or an entry already in the target.
    const bool refused_early = RefusedBeforeWriting(code);
    if (!hostile.empty() && !refused_early && code != VESKARCHIVE_E_FORMAT &&
        code != VESKARCHIVE_E_EXISTS)
      Fail("the archive was not refused as hostile (" + hostile + ") but failed with " +
           veskarchive_strerror(code) + ": " + detail);
    if (refused_early || !hostile.empty()) {
      const std::string diff = Compare(before, after, false);
      if (!diff.empty())
        Fail(std::string("the target was changed before the refusal (") +
             veskarchive_strerror(code) + ": " + detail + "):\n" + diff);
    }
    return;
  }
  if (!readable)
    Fail("extraction succeeded, but the archive does not read to its end");
  if (!hostile.empty())
    Fail("extraction succeeded although " + hostile);
  std::string conflict;
  const Tree expected = Expect(entries, options, selection, before, &conflict);
  if (!conflict.empty())
    Fail("extraction succeeded although " + conflict);
  const std::string diff = Compare(expected, after, false);
  if (!diff.empty())
    Fail("the target differs from what the archive's entries make:\n" + diff);
}

void CheckSignedArchive(const std::string& archive, const Options& options, bool expect_success) {
  const Sandbox& sandbox = TheSandbox();
  WriteBytes(sandbox.archive(), archive);
  static const EvpPkeyPtr key = SigningKey();
  try {
    publish::SignArchive(sandbox.archive(), sandbox.package(), key.get(), kKeyType);
  } catch (const std::exception& e) {
    Fail(std::string("the publisher's signing code failed: ") + e.what());
  }
  CheckPackage(ReadWhole(sandbox.package()), options, expect_success);
}

}  // namespace vesk::fuzz::archive
