// Per-database metrics in the Prometheus text format, for a textfile
// collector: written to the service configuration's "metrics_file" (none when
// the key is absent) after every update, fix and forced install, and printed
// by `veskdbud status --metrics`.
//
//   veskdbud_installed_version{database="db1"} 20250604
//   veskdbud_server_version, veskdbud_last_run_success (1 or 0),
//   veskdbud_last_success_timestamp_seconds, veskdbud_last_run_duration_seconds,
//   veskdbud_last_run_downloaded_bytes, veskdbud_updating (1 or 0)
//
// A value the tool does not know (nothing installed, no server document, no
// recorded run) has no sample.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "database_view.h"
#include "library.h"

namespace vesk::cli {

std::string MetricsText(const Library& lib, const std::vector<DatabaseView>& views);

// The configured "metrics_file", or nullopt when there is none.
std::optional<std::string> MetricsFile(const Library& lib);

// Writes every configured database's metrics to the metrics file, whole
// (temporary file, then rename). Never throws: a failure is one warning line
// on stderr, since the command itself is done.
void WriteMetricsFile(const Library& lib) noexcept;

}  // namespace vesk::cli
