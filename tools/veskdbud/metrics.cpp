#include "metrics.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <iostream>
#include <sstream>

#include "dataupdate/error.h"
#include "write_all.h"

namespace vesk::cli {
namespace {

struct Family {
  const char* name;
  const char* help;
  std::function<std::optional<double>(const DatabaseView&)> value;
};

// The text format's label value escapes: backslash, double quote, new line.
std::string LabelValue(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::optional<double> Number(const Json::Value& value) {
  return value.isNumeric() ? std::optional<double>(value.asDouble()) : std::nullopt;
}

std::optional<double> Flag(bool value) {
  return value ? 1.0 : 0.0;
}

std::string Sample(double value) {
  std::ostringstream text;
  text.precision(17);
  text << value;
  return text.str();
}

}  // namespace

std::string MetricsText(const Library& lib, const std::vector<DatabaseView>& views) {
  const std::vector<Family> families{
      {"veskdbud_installed_version", "Data version of the installed database.",
       [](const DatabaseView& v) {
         return v.installed < 0 ? std::nullopt : std::optional<double>(v.installed);
       }},
      {"veskdbud_server_version", "Newest data version the server offered when last asked.",
       [](const DatabaseView& v) {
         return v.server ? std::optional<double>(*v.server) : std::nullopt;
       }},
      {"veskdbud_last_run_success",
       "1 when the last update, fix or forced install succeeded, 0 when it failed.",
       [](const DatabaseView& v) {
         return v.last_result["ok"].isBool() ? Flag(v.last_result["ok"].asBool()) : std::nullopt;
       }},
      {"veskdbud_last_success_timestamp_seconds",
       "When an update, fix or forced install last succeeded, in seconds since the epoch.",
       [](const DatabaseView& v) { return Number(v.last_result["last_success_time"]); }},
      {"veskdbud_last_run_duration_seconds", "How long the last update, fix or forced install ran.",
       [](const DatabaseView& v) { return Number(v.last_result["duration_seconds"]); }},
      {"veskdbud_last_run_downloaded_bytes",
       "Bytes the last update, fix or forced install downloaded.",
       [](const DatabaseView& v) { return Number(v.last_result["bytes_downloaded"]); }},
      {"veskdbud_updating", "1 while an update, fix or forced install of the database runs.",
       [&lib](const DatabaseView& v) -> std::optional<double> {
         try {
           return Flag(IsUpdating(lib, v.id));
         } catch (const std::exception&) {
           return std::nullopt;  // the lock cannot be probed: unknown
         }
       }},
  };
  std::string text;
  for (const Family& family : families) {
    text += std::string("# HELP ") + family.name + " " + family.help + "\n";
    text += std::string("# TYPE ") + family.name + " gauge\n";
    for (const DatabaseView& view : views) {
      if (const std::optional<double> value = family.value(view)) {
        text += std::string(family.name) + "{database=\"" + LabelValue(view.id) + "\"} " +
                Sample(*value) + "\n";
      }
    }
  }
  return text;
}

std::optional<std::string> MetricsFile(const Library& lib) {
  try {
    std::string path = lib.config->Get("config", "metrics_file");
    return path.empty() ? std::nullopt : std::optional<std::string>(path);
  } catch (const dataupdate::UpdateError&) {
    return std::nullopt;  // not configured
  }
}

void WriteMetricsFile(const Library& lib) noexcept {
  std::string temporary;
  try {
    const std::optional<std::string> path = MetricsFile(lib);
    if (!path)
      return;
    const ServerInfo server = ReadServerInfo(*lib.io);
    std::vector<DatabaseView> views;
    for (const std::string& id : lib.service->GetDatabaseIDs())
      views.push_back(ReadDatabaseView(lib, server, id));
    const std::string text = MetricsText(lib, views);
    // Beside the file, so the rename stays on one file system; the collector
    // never sees half a file.
    temporary = *path + ".tmp." + std::to_string(getpid());
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
      throw std::runtime_error("cannot create " + temporary);
    const bool written = WriteAll(fd, text) && fsync(fd) == 0;
    if (close(fd) != 0 || !written)
      throw std::runtime_error("cannot write " + temporary);
    if (std::rename(temporary.c_str(), path->c_str()) != 0)
      throw std::runtime_error("cannot rename " + temporary + " to " + *path);
  } catch (const std::exception& e) {
    if (!temporary.empty())
      unlink(temporary.c_str());
    std::cerr << "veskdbud: warning: the metrics file was not written: " << e.what() << std::endl;
  }
}

}  // namespace vesk::cli
