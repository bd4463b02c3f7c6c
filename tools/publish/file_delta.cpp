#include "file_delta.h"

#include "file_io.h"
#include "process.h"
#include "publish_error.h"
#include "sqlite_diff.h"

namespace vesk::publish {

void MakeVcdiff(const std::string& old_path, const std::string& new_path, const std::string& out) {
  // -D: xdelta3 would otherwise decompress gzip-looking inputs and record that
  // in the application header that -A leaves out, breaking such deltas.
  int rc = RunProgram({"xdelta3", "-e", "-S", "none", "-A", "-D", "-s", old_path, new_path, out});
  if (rc != 0)
    throw PublishError("xdelta3 failed (status " + std::to_string(rc) + ") for " + new_path);
}

std::optional<PatchEntry> DiffFile(const std::string& name, const std::string& old_path,
                                   const std::string& new_path, const std::string& scratch) {
  if (new_path.empty())
    return PatchEntry{"delete", "", "", ""};
  const PatchEntry whole{"create", "create/" + name, new_path, ""};
  if (old_path.empty())
    return whole;
  if (SameContent(old_path, new_path))
    return std::nullopt;

  const std::uint64_t whole_size = FileSize(new_path);
  std::string note;
  if (IsSqliteFile(old_path) && IsSqliteFile(new_path)) {
    const std::string sql = scratch + "/delta.sqlitediff";
    std::string why;
    if (!MakeSqliteDiff(old_path, new_path, sql, scratch, &why))
      note = "no SQLite diff: " + why;
    else if (FileSize(sql) >= whole_size)
      note = "SQLite diff not smaller than the file";
    else
      return PatchEntry{"update", "sqlitediff/" + name + ".sqlitediff", sql, ""};
  }
  const std::string vcdiff = scratch + "/delta.vcdiff";
  MakeVcdiff(old_path, new_path, vcdiff);
  if (FileSize(vcdiff) < whole_size)
    return PatchEntry{"update", "vcdiff/" + name + ".vcdiff", vcdiff, note};
  PatchEntry created = whole;
  created.note = (note.empty() ? "" : note + "; ") + "delta not smaller than the file";
  return created;
}

}  // namespace vesk::publish
