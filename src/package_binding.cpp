#include "package_binding.h"

#include <json/reader.h>
#include <json/value.h>

#include <boost/filesystem.hpp>
#include <climits>
#include <memory>
#include <sstream>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"
#include "vesk/archive.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

constexpr int kPackageKeyType = 6;

struct ArchiveFree {
  void operator()(veskarchive* handle) const { veskarchive_free(handle); }
};
using ArchiveHandle = std::unique_ptr<veskarchive, ArchiveFree>;

bool IsHexDigest(const std::string& text) {
  if (text.size() != 96)
    return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
      return false;
  }
  return true;
}

bool IsVersion(const Json::Value& v) {
  return v.isIntegral() && v.isInt() && v.asInt() >= 0;
}

std::string Describe(const std::string& database, int version, bool full, int from) {
  std::ostringstream text;
  text << database << " " << version;
  if (full)
    text << " (full)";
  else
    text << " (diff from " << from << ")";
  return text.str();
}

}  // namespace

PackageBinding ParseBinding(const std::string& text, const std::string& package) {
  const auto invalid = [&package](const std::string& why) {
    return UpdateError("Invalid package binding (" + why + "): " + package);
  };
  Json::Value root;
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["rejectDupKeys"] = true;
  builder["failIfExtra"] = true;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject())
    throw invalid("not a JSON object");
  PackageBinding binding;
  if (!root["database"].isString() || root["database"].asString().empty())
    throw invalid("no database");
  binding.database = root["database"].asString();
  if (!IsVersion(root["version"]))
    throw invalid("no version");
  binding.version = root["version"].asInt();
  const Json::Value& kind = root["kind"];
  if (kind == "full") {
    if (root.isMember("from"))
      throw invalid("a full package starts from no version");
  } else if (kind == "diff") {
    binding.full = false;
    if (!IsVersion(root["from"]))
      throw invalid("no starting version");
    binding.from = root["from"].asInt();
  } else {
    throw invalid("unknown kind");
  }
  const Json::Value& manifest = root["manifest"];
  if (!manifest.isObject())
    throw invalid("no manifest");
  for (const std::string& name : manifest.getMemberNames()) {
    const Json::Value& file = manifest[name];
    if (!file.isObject() || !file["sha384"].isString() || !IsHexDigest(file["sha384"].asString()) ||
        !file["size"].isUInt64())
      throw invalid("manifest entry of " + name);
    binding.manifest[name] = ManifestEntry{file["sha384"].asString(), file["size"].asUInt64()};
  }
  return binding;
}

void CheckBinding(const PackageBinding& actual, const ExpectedBinding& expected) {
  const bool matches = actual.database == expected.database && actual.full == expected.full &&
                       (expected.any_version || actual.version == expected.version) &&
                       (expected.full || actual.from == expected.from);
  if (matches)
    return;
  const std::string wanted =
      expected.any_version
          ? expected.database + (expected.full ? " (full)" : " (diff)")
          : Describe(expected.database, expected.version, expected.full, expected.from);
  throw UpdateError("package is for " +
                    Describe(actual.database, actual.version, actual.full, actual.from) +
                    ", expected " + wanted);
}

void CheckChainLeadsToManifest(const Manifest& manifest, const std::map<std::string, bool>& changed,
                               const std::string& install_prefix) {
  const auto differs = [](const std::string& name, const std::string& how) {
    return UpdateError("Diff chain does not lead to the published release: " + name + " " + how);
  };
  std::map<std::string, bool> result;  // name -> changed by the chain
  for (const auto& [name, written] : changed) {
    if (written)
      result[name.substr(1)] = true;
  }
  const fs::path base(install_prefix);
  boost::system::error_code ec;
  for (fs::recursive_directory_iterator it(base, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_directory(it->symlink_status()))
      continue;
    const std::string name = it->path().lexically_relative(base).string();
    if (changed.count("/" + name) == 0)
      result.emplace(name, false);
  }
  if (ec)
    throw UpdateError("Fail to list " + install_prefix + ": " + ec.message());
  for (const auto& [name, written] : result) {
    const auto listed = manifest.find(name);
    if (listed == manifest.end())
      throw differs(name, "is not in the release");
    if (!written) {
      boost::system::error_code size_ec;
      const auto size = fs::file_size(base / name, size_ec);
      if (size_ec || size != listed->second.size)
        throw differs(name, "is not the size the release lists");
    }
  }
  for (const auto& entry : manifest) {
    if (result.count(entry.first) == 0)
      throw differs(entry.first, "is missing");
  }
}

PackageBinding ExtractBoundPackage(const std::string& package, const std::string& dir,
                                   const ExpectedBinding* expected) {
  ArchiveHandle handle(veskarchive_init(dir.c_str()));
  if (!handle)
    throw UpdateError("Failed to extract package at veskarchive_init");
  if (veskarchive_open_with_keytype(handle.get(), package.c_str(), kPackageKeyType) == 0) {
    throw UpdateError((NoexceptFormat("veskarchive_open %s failed, ret: %d") % package %
                       veskarchive_error(handle.get()))
                          .str());
  }
  PackageBinding binding;
  if (expected != nullptr) {
    size_t size = 0;
    const char* text = veskarchive_binding(handle.get(), &size);
    if (text == nullptr)
      throw UpdateError("package carries no binding of database and version: " + package);
    binding = ParseBinding(std::string(text, size), package);
    CheckBinding(binding, *expected);
  }
  if (veskarchive_extract_multiple(handle.get(), nullptr, VESKARCHIVE_EXTRACT_OVERWRITE) == 0) {
    throw UpdateError((NoexceptFormat("veskarchive_extract %s failed, ret: %d") % package %
                       veskarchive_error(handle.get()))
                          .str());
  }
  return binding;
}

}  // namespace vesk::dataupdate
