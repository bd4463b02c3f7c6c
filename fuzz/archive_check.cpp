#include "archive_check.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
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

// One object of a directory tree as lstat sees it: its kind, size, mode and
// time, and a file's content (when small enough) or a link's text.
struct Node {
  char kind = '?';  // 'f' file, 'd' directory, 'l' link, '?' anything else
  std::string data;
  std::uint64_t size = 0;
  mode_t mode = 0;
  std::int64_t mtime_sec = 0;
  long mtime_nsec = 0;
};
using Tree = std::map<std::string, Node>;

std::string ReadWhole(const std::string& path, std::uint64_t limit = UINT64_MAX) {
  std::string bytes;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0)
    Fail("cannot read " + path);
  char buffer[65536];
  for (ssize_t n; bytes.size() < limit && (n = read(fd, buffer, sizeof buffer)) > 0;)
    bytes.append(buffer, static_cast<size_t>(n));
  close(fd);
  return bytes;
}

// Every object below `dir` by its path relative to `dir`, links not followed;
// the relative paths in `skip` are left out with everything below them.
Tree ListTree(const std::string& dir, const std::set<std::string>& skip = {}) {
  Tree tree;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    const std::string path = it->path().string();
    const std::string relative = path.substr(dir.size() + 1);
    if (skip.count(relative) != 0) {
      it.disable_recursion_pending();
      continue;
    }
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
      Fail("cannot lstat " + path);
    Node node{'?',
              "",
              static_cast<std::uint64_t>(st.st_size),
              st.st_mode & 07777,
              st.st_mtim.tv_sec,
              st.st_mtim.tv_nsec};
    if (S_ISREG(st.st_mode)) {
      node.kind = 'f';
      node.data = ReadWhole(path, kMaxCompared);
    } else if (S_ISDIR(st.st_mode)) {
      node.kind = 'd';
      node.size = 0;
    } else if (S_ISLNK(st.st_mode)) {
      node.kind = 'l';
      node.data = fs::read_symlink(path).string();
    }
    tree.emplace(relative, std::move(node));
  }
  return tree;
}

bool SameNode(const Node& a, const Node& b, bool with_meta) {
  return a.kind == b.kind && a.size == b.size && a.data == b.data &&
         (!with_meta ||
          (a.mode == b.mode && a.mtime_sec == b.mtime_sec && a.mtime_nsec == b.mtime_nsec));
}

// The paths that differ between two trees, one line each ("" when none).
std::string Compare(const Tree& expected, const Tree& got, bool with_meta) {
  std::string diff;
  for (const auto& [path, node] : expected) {
    const auto it = got.find(path);
    if (it == got.end() || !SameNode(node, it->second, with_meta))
      diff += "  " + path + (it == got.end() ? " is missing\n" : " changed\n");
  }
  for (const auto& entry : got) {
    if (expected.count(entry.first) == 0)
      diff += "  " + entry.first + " is new\n";
  }
  return diff;
}

// Removes everything below `dir`, making directories writable first (an
// extracted directory may have any mode).
void RemoveContents(const std::string& dir) {
  for (fs::directory_iterator it(dir), end; it != end; ++it) {
    struct stat st;
    if (lstat(it->path().c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      chmod(it->path().c_str(), 0700);
      RemoveContents(it->path().string());
    }
  }
  boost::system::error_code ec;
  for (fs::directory_iterator it(dir), end; it != end; it.increment(ec))
    fs::remove_all(it->path(), ec);
  if (!fs::is_empty(dir))
    Fail("cannot empty " + dir);
}

std::size_t OpenDescriptors() {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
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

// ------------------------------------------------------------------ the run

// The name of the first entry of the archive inside a whole envelope, if any.
bool FirstEntryName(const std::string& package, std::string* name) {
  using namespace envelope;
  if (package.size() < kHeaderSize + kTrailerSize ||
      package.compare(0, kHeaderMagicSize, kHeaderMagic) != 0)
    return false;
  const std::uint64_t length =
      GetBig(reinterpret_cast<const std::uint8_t*>(package.data()) + kHeaderMagicSize, 8);
  if (length != package.size() - kHeaderSize - kTrailerSize)
    return false;
  ArchiveReadPtr a(archive_read_new());
  if (!a)
    Fail("archive_read_new failed");
  archive_read_support_format_tar(a.get());
  archive_read_support_filter_all(a.get());
  struct archive_entry* entry = nullptr;
  if (archive_read_open_memory(a.get(), package.data() + kHeaderSize,
                               static_cast<size_t>(length)) != ARCHIVE_OK ||
      archive_read_next_header(a.get(), &entry) < ARCHIVE_WARN ||
      archive_entry_pathname(entry) == nullptr)
    return false;
  *name = archive_entry_pathname(entry);
  return true;
}

// Whether the link at `path` (relative to the target) with text `text` stays
// inside the target when read as written, from the link's own directory.
bool LinkStaysInside(const std::string& path, const std::string& text) {
  if (text.empty() || text[0] == '/')
    return false;
  long depth = static_cast<long>(std::count(path.begin(), path.end(), '/'));
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('/', start);
    if (end == std::string::npos)
      end = text.size();
    const std::string part = text.substr(start, end - start);
    if (part == ".." && --depth < 0)
      return false;
    if (part != ".." && !part.empty() && part != ".")
      ++depth;
    start = end + 1;
  }
  return true;
}

// Refusals that vesk/archive.h promises before the first entry is written.
bool RefusedBeforeWriting(int code) {
  static const std::set<int> codes = {
      VESKARCHIVE_E_INVALID,      VESKARCHIVE_E_ABSOLUTE_PATH, VESKARCHIVE_E_DOTDOT,
      VESKARCHIVE_E_LINK_OUTSIDE, VESKARCHIVE_E_HARDLINK,      VESKARCHIVE_E_DEVICE,
      VESKARCHIVE_E_FIFO,         VESKARCHIVE_E_SPECIAL,       VESKARCHIVE_E_THROUGH_LINK,
      VESKARCHIVE_E_BAD_NAME,     VESKARCHIVE_E_ENTRY_MISSING};
  return codes.count(code) != 0;
}

// Failures a run may end with. Not: VESKARCHIVE_E_OPEN and E_NOT_REGULAR (the
// package is a regular file the harness wrote), E_CHANGED (nothing changes it)
// and E_INTERNAL (no exception, allocation or crypto failure is expected).
bool AcceptableFailure(int code) {
  static const std::set<int> codes = {
      VESKARCHIVE_E_NO_ENVELOPE, VESKARCHIVE_E_MALFORMED,   VESKARCHIVE_E_TRUNCATED,
      VESKARCHIVE_E_KEY_TYPE,    VESKARCHIVE_E_UNKNOWN_KEY, VESKARCHIVE_E_BAD_SIGNATURE,
      VESKARCHIVE_E_FORMAT,      VESKARCHIVE_E_WRITE,       VESKARCHIVE_E_EXISTS};
  return codes.count(code) != 0 || RefusedBeforeWriting(code);
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
  static const char kSeed[] = "veskdbud-fuzz-key-not-a-secret!\n";  // 32 bytes
  EvpPkeyPtr key(EVP_PKEY_new_raw_private_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(kSeed), sizeof kSeed - 1));
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

Expect ExpectFromEnvironment() {
  const auto set = [](const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
  };
  if (set("VESKDBUD_FUZZ_EXPECT_SUCCESS"))
    return Expect::kSuccess;
  return set("VESKDBUD_FUZZ_EXPECT_REFUSAL") ? Expect::kRefusal : Expect::kAny;
}

void CheckPackage(const std::string& package, const Options& options, Expect expect) {
  const Sandbox& sandbox = TheSandbox();
  sandbox.ResetTarget(options.prefilled);
  const Tree before = ListTree(sandbox.target());
  WriteBytes(sandbox.package(), package);

  std::string first;
  std::vector<const char*> selected;
  if (options.select_first && FirstEntryName(package, &first))
    selected.push_back(first.c_str());
  if (options.select_missing)
    selected.push_back(kMissingName);
  selected.push_back(nullptr);
  const char* const* wanted = selected.size() > 1 ? selected.data() : nullptr;

  const std::size_t descriptors = OpenDescriptors();
  const fs::path cwd = fs::current_path();
  int code = VESKARCHIVE_OK;
  std::string detail;
  {
    HandlePtr handle(veskarchive_init(sandbox.target().c_str()));
    if (!handle)
      Fail("veskarchive_init refused the target directory");
    const int opened =
        veskarchive_open_with_keytype(handle.get(), sandbox.package().c_str(), kKeyType);
    CheckResult("veskarchive_open_with_keytype", opened, handle.get());
    if (opened != 0) {
      const int ok = veskarchive_extract_multiple(
          handle.get(), wanted, options.overwrite ? VESKARCHIVE_EXTRACT_OVERWRITE : 0);
      CheckResult("veskarchive_extract_multiple", ok, handle.get());
    }
    code = veskarchive_error(handle.get());
    detail = veskarchive_error_detail(handle.get());
  }
  if (fs::current_path() != cwd)
    Fail("the working directory changed from " + cwd.string());
  if (OpenDescriptors() != descriptors)
    Fail("a descriptor was left open (" + std::to_string(OpenDescriptors()) + " instead of " +
         std::to_string(descriptors) + ")");
  sandbox.CheckOutsideUnchanged();

  const Tree after = ListTree(sandbox.target());
  const std::string outcome = std::string(veskarchive_strerror(code)) + ": " + detail;
  if (code != VESKARCHIVE_OK) {
    if (expect == Expect::kSuccess)
      Fail("a valid input failed: " + outcome);
    const std::string diff = Compare(before, after, false);
    if (RefusedBeforeWriting(code) && !diff.empty())
      Fail("the target was changed before the refusal (" + outcome + "):\n" + diff);
    return;
  }
  if (expect == Expect::kRefusal)
    Fail("an input that must be refused extracted");
  if (options.select_missing)
    Fail("extraction succeeded although a requested name is not in the archive");
  for (const auto& [path, node] : after) {
    const auto old = before.find(path);
    const bool kept = old != before.end() && SameNode(old->second, node, false);
    if (node.kind == '?')
      Fail("extraction made the special file " + path);
    if (node.kind == 'l' && !kept && !LinkStaysInside(path, node.data))
      Fail("extraction made the link " + path + " -> " + node.data + " leading out of the target");
  }
  for (const auto& [path, node] : before) {
    const auto now = after.find(path);
    if (!options.overwrite && node.kind != 'd' &&
        (now == after.end() || !SameNode(node, now->second, false)))
      Fail("extraction without overwriting replaced " + path);
  }
}

void CheckSignedArchive(const std::string& archive, const Options& options, Expect expect) {
  const Sandbox& sandbox = TheSandbox();
  WriteBytes(sandbox.archive(), archive);
  static const EvpPkeyPtr key = SigningKey();
  try {
    publish::SignArchive(sandbox.archive(), sandbox.package(), key.get(), kKeyType);
  } catch (const std::exception& e) {
    Fail(std::string("the publisher's signing code failed: ") + e.what());
  }
  CheckPackage(ReadWhole(sandbox.package()), options, expect);
}

}  // namespace vesk::fuzz::archive
