// The installed version from the text of a status file ("version.json"),
// without building its list of files: what an up-to-date check needs, at a
// cost that stays small for tens of thousands of recorded files.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace vesk::dataupdate {

// The data_version that DatabaseStatus::FromJson gives for the JSON document
// `text`, when `text` lies in the plain subset this library writes and that
// reading accepts: objects whose member names ascend strictly (so none
// repeats), strings without escapes, integers, whitespace; "data_version" a
// string of at most 9 digits (an optional "-" first), "last_fetch_time" an
// integer within 32 bits, "file_statuses" an object of objects that each hold
// a string "sha384_digest". nullopt for anything else, including documents
// the full reading accepts or rejects: then only the full reading can tell.
std::optional<int> ScanStatusVersion(const char* text, size_t size);

// A regular, non-empty file mapped for reading while the object lives; data()
// is null when it cannot be mapped so.
class MappedFile {
 public:
  explicit MappedFile(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  const char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  const char* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace vesk::dataupdate
