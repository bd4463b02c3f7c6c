#include "repository.h"

#include <json/json.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <climits>
#include <ostream>
#include <sstream>
#include <vector>

#include "file_delta.h"
#include "file_io.h"
#include "publish_error.h"
#include "signing.h"
#include "source_tree.h"
#include "tar_writer.h"

namespace fs = boost::filesystem;

namespace vesk::publish {
namespace {

struct Context {
  const PublishOptions& options;
  EVP_PKEY* key;
  std::string base_url;  // without a trailing "/"
  std::string scratch;
  std::ostream& log;
  std::ostream& warn;
};

std::string Join(const std::string& dir, const std::string& relative) {
  return dir + "/" + relative;
}

bool IsSafeComponent(const std::string& s) {
  return IsValidDatabaseId(s) && s != "." && s != "..";
}

// Every file of a version with its SHA-384 and size: the manifest each of the
// version's packages carries in its binding.
Json::Value Manifest(const VersionTree& v) {
  Json::Value manifest(Json::objectValue);
  for (const auto& [name, path] : v.files) {
    Json::Value& file = manifest[name];
    file["sha384"] = Sha384Hex(path);
    file["size"] = static_cast<Json::UInt64>(FileSize(path));
  }
  return manifest;
}

// What a package installs, signed with it: the engine refuses a package whose
// binding is not the one it asked for.
std::string BindingText(const std::string& id, int version, int from, const Json::Value& manifest) {
  Json::Value binding(Json::objectValue);
  binding["database"] = id;
  binding["version"] = version;
  binding["kind"] = from < 0 ? "full" : "diff";
  if (from >= 0)
    binding["from"] = from;
  binding["manifest"] = manifest;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, binding);
}

// Signs the archive built from `members` into out/<relative>; its size.
std::uint64_t WritePackage(const Context& ctx, std::vector<TarMember> members, std::int64_t mtime,
                           const std::string& relative, const std::string& binding) {
  const std::string tar = Join(ctx.scratch, "archive.tar.zst");
  WriteTar(tar, members, mtime);
  const std::string path = Join(ctx.options.out, relative);
  fs::create_directories(fs::path(path).parent_path());
  SignArchive(tar, path, ctx.key, ctx.options.key_type, binding);
  fs::remove(tar);
  return FileSize(path);
}

std::uint64_t WriteFullPackage(const Context& ctx, const DatabaseSource& db, const VersionTree& v,
                               const Json::Value& manifest, std::int64_t mtime) {
  std::vector<TarMember> members;
  for (const auto& [name, path] : v.files)
    members.push_back(FileMember(name, path));
  return WritePackage(ctx, members, mtime, FullPackagePath(db.id, v.version),
                      BindingText(db.id, v.version, -1, manifest));
}

std::uint64_t WriteDiffPackage(const Context& ctx, const DatabaseSource& db,
                               const VersionTree& from, const VersionTree& to,
                               const Json::Value& manifest, std::int64_t mtime) {
  std::set<std::string> names;
  for (const auto& f : from.files)
    names.insert(f.first);
  for (const auto& f : to.files)
    names.insert(f.first);

  const std::string work = Join(ctx.scratch, "diff");
  Json::Value patch_infos(Json::objectValue);
  std::vector<TarMember> inputs;
  int n = 0;
  for (const auto& name : names) {
    const std::string file_scratch = Join(work, std::to_string(n++));
    fs::create_directories(file_scratch);
    auto old_it = from.files.find(name);
    auto new_it = to.files.find(name);
    auto entry = DiffFile(name, old_it != from.files.end() ? old_it->second : "",
                          new_it != to.files.end() ? new_it->second : "", file_scratch);
    if (!entry)
      continue;
    // The engine appends names to the install prefix as they stand.
    Json::Value& info = patch_infos["/" + name];
    info["operation"] = entry->operation;
    info["input_file"] = entry->input_name;
    if (!entry->input_path.empty())
      inputs.push_back(FileMember(entry->input_name, entry->input_path));
    if (!entry->note.empty())
      ctx.log << "note  " << db.id << " v" << to.version << " /" << name << ": " << entry->note
              << "\n";
  }
  std::sort(inputs.begin(), inputs.end(),
            [](const TarMember& a, const TarMember& b) { return a.name < b.name; });
  std::ostringstream json;
  Json::StyledStreamWriter("\t").write(json, patch_infos);
  std::vector<TarMember> members{TextMember("patch_infos.json", json.str())};
  members.insert(members.end(), inputs.begin(), inputs.end());
  const std::uint64_t size = WritePackage(ctx, members, mtime, DiffPackagePath(db.id, to.version),
                                          BindingText(db.id, to.version, from.version, manifest));
  fs::remove_all(work);
  return size;
}

// A forced install derives other versions' links by rewriting the digits of the
// announced version, so those digits must occur in the link exactly once.
void WarnAboutLinkDigits(const Context& ctx, const DatabaseSource& db, const std::string& link,
                         int newest) {
  for (const auto& v : db.versions) {
    const std::string digits = std::to_string(v.first);
    if (ctx.base_url.find(digits) != std::string::npos)
      ctx.warn << "warning: the base URL " << ctx.base_url << " contains " << digits
               << ", the digits of version " << digits << " of " << db.id
               << "; a forced install rewrites every occurrence\n";
    if (db.id.find(digits) != std::string::npos)
      ctx.warn << "warning: the database id " << db.id << " contains " << digits
               << ", the digits of its version " << digits
               << "; a forced install rewrites every occurrence\n";
  }
  const std::string digits = std::to_string(newest);
  size_t count = 0;
  for (size_t at = link.find(digits); at != std::string::npos;
       at = link.find(digits, at + digits.size()))
    ++count;
  if (count != 1)
    ctx.warn << "warning: the announced link " << link << " of " << db.id << " holds " << digits
             << " " << count << " times; a forced install needs it exactly once\n";
}

std::int64_t NewestMtime(const DatabaseSource& db) {
  std::int64_t t = 0;
  for (const auto& v : db.versions)
    t = std::max(t, v.second.newest_mtime);
  return t;
}

Json::Value PublishDatabase(const Context& ctx, const DatabaseSource& db) {
  const auto& o = ctx.options;
  std::map<int, std::uint64_t> full_sizes;
  std::map<int, Json::Value> manifests;
  for (const auto& [version, tree] : db.versions) {
    manifests[version] = Manifest(tree);
    full_sizes[version] =
        WriteFullPackage(ctx, db, tree, manifests[version], o.time.value_or(tree.newest_mtime));
    ctx.log << "full  " << db.id << " v" << version << "  " << full_sizes[version] << " bytes\n";
  }
  Json::Value diffs(Json::objectValue);
  for (const auto& [version, tree] : db.versions) {
    auto previous = db.versions.find(version - 1);
    if (previous == db.versions.end())
      continue;
    const std::uint64_t size = WriteDiffPackage(ctx, db, previous->second, tree, manifests[version],
                                                o.time.value_or(tree.newest_mtime));
    ctx.log << "diff  " << db.id << " v" << version << "  " << size << " bytes";
    // Both packages carry the release's manifest; the choice weighs what differs.
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    const auto manifest_bytes =
        static_cast<double>(Json::writeString(compact, manifests[version]).size());
    if (static_cast<double>(size) - manifest_bytes >
        o.max_diff_ratio * (static_cast<double>(full_sizes[version]) - manifest_bytes)) {
      ctx.log << "  (not announced: more than " << o.max_diff_ratio * 100
              << "% of the full package)\n";
      continue;
    }
    if (size > static_cast<std::uint64_t>(INT_MAX)) {
      ctx.log << "  (not announced: too large for the document)\n";
      continue;
    }
    ctx.log << "\n";
    Json::Value& d = diffs[std::to_string(version)];
    d["download_link"] = ctx.base_url + "/" + DiffPackagePath(db.id, version);
    d["file_size"] = static_cast<Json::Int>(size);
  }

  const int newest = db.versions.rbegin()->first;
  auto override_link = o.links.find(db.id);
  const std::string link = override_link != o.links.end()
                               ? override_link->second
                               : ctx.base_url + "/" + FullPackagePath(db.id, newest);
  WarnAboutLinkDigits(ctx, db, link, newest);
  const std::int64_t fetch_time = o.time.value_or(NewestMtime(db));
  if (fetch_time < 0 || fetch_time > INT_MAX)
    throw PublishError("last_fetch_time " + std::to_string(fetch_time) + " of " + db.id +
                       " does not fit the document (0 to " + std::to_string(INT_MAX) + ")");

  Json::Value entry(Json::objectValue);
  entry["data_version"] = std::to_string(newest);
  entry["last_fetch_time"] = static_cast<Json::Int>(fetch_time);
  entry["deprecated"] = o.deprecated.count(db.id) != 0;
  entry["download_link"] = link;
  entry["diff_files"] = diffs;
  return entry;
}

void CheckOptions(const PublishOptions& o, const std::vector<DatabaseSource>& dbs) {
  if (o.base_url.empty())
    throw PublishError("--base-url is empty");
  if (!IsSafeComponent(o.db_ver))
    throw PublishError("--db-ver must be letters, digits, '.', '_' or '-': " + o.db_ver);
  if (!(o.max_diff_ratio >= 0))
    throw PublishError("--max-diff-ratio must not be negative");
  std::set<std::string> ids;
  for (const auto& db : dbs)
    ids.insert(db.id);
  for (const auto& id : o.deprecated) {
    if (ids.count(id) == 0)
      throw PublishError("--deprecated names an unknown database: " + id);
  }
  for (const auto& link : o.links) {
    if (ids.count(link.first) == 0)
      throw PublishError("--link names an unknown database: " + link.first);
  }
}

}  // namespace

std::string FullPackagePath(const std::string& id, int version) {
  return id + "/v" + std::to_string(version) + "/full.pkg";
}

std::string DiffPackagePath(const std::string& id, int version) {
  return id + "/v" + std::to_string(version) + "/diff.pkg";
}

void Publish(const PublishOptions& options, std::ostream& log, std::ostream& warn) {
  const std::vector<DatabaseSource> dbs = ScanSource(options.source);
  CheckOptions(options, dbs);
  EvpPkeyPtr key = LoadPrivateKey(options.key_path);
  fs::create_directories(options.out);
  ScratchDir scratch(options.out);

  std::string base = options.base_url;
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  Context ctx{options, key.get(), base, scratch.path(), log, warn};

  Json::Value document(Json::objectValue);
  document["db_list"] = Json::Value(Json::objectValue);
  for (const auto& db : dbs)
    document["db_list"][db.id] = PublishDatabase(ctx, db);

  std::ostringstream text;
  Json::StyledStreamWriter("\t").write(text, document);
  const std::string info = Join(options.out, "database_info/" + options.db_ver);
  fs::create_directories(fs::path(info).parent_path());
  WriteFileAtomically(info, text.str());
  log << "info  " << info << "\n";
  SignInfo(options.out, options.db_ver, key.get(), options.key_type, options.issued,
           options.valid_days, log);
}

void SignInfo(const std::string& out, const std::string& db_ver, EVP_PKEY* key,
              std::uint32_t key_type, std::int64_t issued, int valid_days, std::ostream& log) {
  const std::string info = Join(out, "database_info/" + db_ver);
  const std::int64_t expires = issued + std::int64_t{valid_days} * 86400;
  SignDocument(info, key, key_type, db_ver, issued, expires);
  log << "sign  " << DocumentSignaturePath(info) << "  valid until " << expires << "\n";
}

void Resign(const ResignOptions& options, std::ostream& log) {
  EvpPkeyPtr key = LoadPrivateKey(options.key_path);
  const fs::path dir = fs::path(options.out) / "database_info";
  if (!fs::is_directory(dir))
    throw PublishError("no database-info documents below " + options.out);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) {
    const std::string name = entry.path().filename().string();
    if (fs::is_regular_file(entry.status()) && IsSafeComponent(name) &&
        entry.path().extension() != ".sig" && entry.path().extension() != ".tmp")
      names.push_back(name);
  }
  if (names.empty())
    throw PublishError("no database-info documents below " + options.out);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names)
    SignInfo(options.out, name, key.get(), options.key_type, options.issued, options.valid_days,
             log);
}

}  // namespace vesk::publish
