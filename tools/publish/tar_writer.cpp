#include "tar_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "publish_error.h"
#include "vesk_internal/archive_ptr.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::publish {
namespace {

void Check(struct archive* a, int r, const std::string& what) {
  if (r < ARCHIVE_WARN) {
    const char* text = archive_error_string(a);
    throw PublishError(what + ": " + (text != nullptr ? text : "libarchive failed"));
  }
}

void WriteData(struct archive* a, const char* data, size_t size, const std::string& name) {
  while (size > 0) {
    la_ssize_t n = archive_write_data(a, data, size);
    if (n <= 0)
      Check(a, ARCHIVE_FATAL, "cannot archive " + name);
    data += n;
    size -= static_cast<size_t>(n);
  }
}

void StreamFile(struct archive* a, const TarMember& m, std::uint64_t size) {
  UniqueFd fd(open(m.source_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!fd)
    throw PublishError("cannot open " + m.source_path + ": " + std::strerror(errno));
  std::vector<char> buf(64 * 1024);
  std::uint64_t done = 0;
  for (;;) {
    ssize_t n = read(fd.get(), buf.data(), buf.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw PublishError("cannot read " + m.source_path + ": " + std::strerror(errno));
    if (n == 0)
      break;
    WriteData(a, buf.data(), static_cast<size_t>(n), m.name);
    done += static_cast<std::uint64_t>(n);
  }
  if (done != size)
    throw PublishError(m.source_path + " changed while it was archived");
}

}  // namespace

TarMember FileMember(const std::string& name, const std::string& source_path) {
  TarMember m;
  m.name = name;
  m.source_path = source_path;
  struct stat st;
  m.executable = stat(source_path.c_str(), &st) == 0 && (st.st_mode & S_IXUSR) != 0;
  return m;
}

TarMember TextMember(const std::string& name, const std::string& content) {
  TarMember m;
  m.name = name;
  m.content = content;
  return m;
}

void WriteTar(const std::string& out_path, const std::vector<TarMember>& members,
              std::int64_t mtime) {
  UniqueFd fd(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd)
    throw PublishError("cannot create " + out_path + ": " + std::strerror(errno));
  ArchiveWritePtr a(archive_write_new());
  if (!a)
    throw PublishError("archive_write_new failed");
  Check(a.get(), archive_write_set_format_pax_restricted(a.get()), "tar format");
  Check(a.get(), archive_write_add_filter_zstd(a.get()), "zstd filter");
  Check(a.get(), archive_write_open_fd(a.get(), fd.get()), "cannot write " + out_path);

  for (const auto& m : members) {
    std::uint64_t size = m.content.size();
    if (!m.source_path.empty()) {
      struct stat st;
      if (stat(m.source_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        throw PublishError("not a regular file: " + m.source_path);
      size = static_cast<std::uint64_t>(st.st_size);
    }
    ArchiveEntryPtr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), m.name.c_str());
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), m.executable ? 0755 : 0644);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_mtime(entry.get(), mtime, 0);
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);
    Check(a.get(), archive_write_header(a.get(), entry.get()), "cannot archive " + m.name);
    if (m.source_path.empty())
      WriteData(a.get(), m.content.data(), m.content.size(), m.name);
    else
      StreamFile(a.get(), m, size);
  }
  Check(a.get(), archive_write_close(a.get()), "cannot finish " + out_path);
  if (close(fd.release()) != 0)
    throw PublishError("cannot write " + out_path + ": " + std::strerror(errno));
}

}  // namespace vesk::publish
