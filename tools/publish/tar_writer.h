// Writes the deterministic archive inside every package: a POSIX (pax) tar,
// zstd-compressed, whose members appear in the order given with fixed owner
// (0/0, no names), fixed modification time and modes 0644 or 0755. The same
// members and time always give the same bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::publish {

struct TarMember {
  std::string name;         // relative path inside the archive
  std::string source_path;  // file to stream from; empty: use `content`
  std::string content;
  bool executable = false;
};

TarMember FileMember(const std::string& name, const std::string& source_path);
TarMember TextMember(const std::string& name, const std::string& content);

// Writes `members` to `out_path`; throws PublishError on failure.
void WriteTar(const std::string& out_path, const std::vector<TarMember>& members,
              std::int64_t mtime);

}  // namespace vesk::publish
