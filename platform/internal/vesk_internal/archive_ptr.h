// Owners for libarchive handles: readers, writers (archive and disk) and entries.
#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <memory>

namespace vesk {

struct ArchiveReadFree {
  void operator()(struct archive* a) const { archive_read_free(a); }
};
struct ArchiveWriteFree {
  // Also right for archive_write_disk handles: archive_write_free dispatches.
  void operator()(struct archive* a) const { archive_write_free(a); }
};
struct ArchiveEntryFree {
  void operator()(struct archive_entry* e) const { archive_entry_free(e); }
};

using ArchiveReadPtr = std::unique_ptr<struct archive, ArchiveReadFree>;
using ArchiveWritePtr = std::unique_ptr<struct archive, ArchiveWriteFree>;
using ArchiveEntryPtr = std::unique_ptr<struct archive_entry, ArchiveEntryFree>;

}  // namespace vesk
