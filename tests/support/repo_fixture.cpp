#include "repo_fixture.h"

#include <boost/filesystem.hpp>
#include <memory>

#include "dataupdate/io_utils.h"

namespace fs = boost::filesystem;

namespace vesk::test {

std::string Capture(const std::string& command) {
  const CommandResult result = RunCommand({"/bin/sh", "-c", command});
  EXPECT_EQ(result.status, 0) << command << ": " << result.err;
  return result.out;
}

Repo::Repo() : source_(work_ / "source"), out_(work_ / "served/repo"), key_dir_(work_ / "keys") {
  fs::create_directories(source_);
  fs::create_directories(out_);
  server_ = std::make_unique<HttpServer>(work_ / "served");
  const std::string keygen =
      ShellQuote(VESKDBUD_PUBLISH_BIN) + " keygen --out " + ShellQuote(key_dir_) + " >/dev/null";
  if (Shell(keygen) != 0)
    ADD_FAILURE() << "keygen failed";
}

std::string Repo::SourceDir(const std::string& id, int version) const {
  return source_ + "/" + id + "/" + std::to_string(version);
}

void Repo::SetFile(const std::string& id, int version, const std::string& name,
                   const std::string& content) {
  WriteFile(SourceDir(id, version) + "/" + name, content);
}

void Repo::CopyVersion(const std::string& id, int from, int to) {
  const std::string target = SourceDir(id, to);
  fs::remove_all(target);
  ASSERT_EQ(Shell("cp -a " + ShellQuote(SourceDir(id, from)) + " " + ShellQuote(target)), 0);
}

void Repo::Sql(const std::string& id, int version, const std::string& name,
               const std::string& sql) {
  const std::string db = SourceDir(id, version) + "/" + name;
  fs::create_directories(fs::path(db).parent_path());
  ASSERT_EQ(Shell("sqlite3 " + ShellQuote(db) + " " + ShellQuote(sql)), 0) << sql;
}

int Repo::Publish(const std::vector<std::string>& extra_args, const std::string& base_url) {
  std::string command = ShellQuote(VESKDBUD_PUBLISH_BIN) + " publish --source " +
                        ShellQuote(source_) + " --out " + ShellQuote(out_) + " --key " +
                        ShellQuote(key_dir_ + "/private.pem") + " --base-url " +
                        ShellQuote(base_url.empty() ? BaseUrl() : base_url) + " --db-ver " + kDbVer;
  for (const auto& arg : extra_args)
    command += " " + ShellQuote(arg);
  return Shell(command + " >/dev/null 2>&1");
}

Json::Value Repo::Info() const {
  return dataupdate::IOUtils().ReadJson(out_ + "/database_info/" + kDbVer);
}

RemoteInfo Repo::Remote(const std::string& id) const {
  return RemoteInfo::FromJson(Info()["db_list"][id]);
}

std::map<int, DiffInfo> Repo::Diffs(const std::string& id) const {
  return DiffInfo::BatchFromJson(Info()["db_list"][id]["diff_files"]);
}

void InstallTrust(const Sandbox& sandbox, const Repo& repo) {
  fs::create_directories(sandbox / "usr/vesk/etc/keys/6");
  fs::copy_file(repo.key_dir() + "/public.pem", sandbox / "usr/vesk/etc/keys/6/publisher.pem",
                fs::copy_options::overwrite_existing);
  fs::create_directories(sandbox / "usr/vesk/sbin");
  boost::system::error_code ec;
  fs::remove(sandbox / "usr/vesk/sbin/veskdbudvcdiff", ec);
  fs::create_symlink(VESKDBUD_VCDIFF_BIN, sandbox / "usr/vesk/sbin/veskdbudvcdiff");
}

std::map<std::string, std::string> Snapshot(const std::string& dir) {
  std::map<std::string, std::string> files;
  if (!fs::is_directory(dir))
    return files;
  for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
    if (fs::is_regular_file(it->symlink_status())) {
      files[it->path().lexically_relative(dir).string()] = ReadFile(it->path().string());
    }
  }
  return files;
}

void WriteDefaultConfig(const Sandbox& sandbox, const Repo& repo, const std::string& volume,
                        const std::vector<DatabaseEntry>& databases) {
  Json::Value service;
  service["config"]["download_scheme"] = "http";
  service["config"]["db_netloc"] = "127.0.0.1:" + std::to_string(repo.server().port()) + "/repo";
  service["config"]["db_ver"] = Repo::kDbVer;
  service["config"]["cur_volume"] = volume;
  Json::Value dbs(Json::objectValue);
  for (const auto& db : databases) {
    dbs[db.id]["install_dest"] = db.install_dest;
    dbs[db.id]["format_version"] = db.format_version;
    dbs[db.id]["auto_update"] = db.auto_update;
    dbs[db.id]["min_rsv_space_inbytes"] = Json::UInt64(db.reserved);
  }
  WriteFile(sandbox / "usr/share/data_update/data_update.conf", service.toStyledString());
  WriteFile(sandbox / "usr/share/data_update/databases.conf", dbs.toStyledString());
}

std::string CompareTrees(const std::string& got, const std::string& want, bool sqlite_by_content) {
  const auto a = Snapshot(got);
  const auto b = Snapshot(want);
  std::string report;
  for (const auto& [name, content] : b) {
    auto it = a.find(name);
    if (it == a.end()) {
      report += "missing " + name + "; ";
    } else if (it->second != content) {
      const bool sqlite = content.compare(0, 16, std::string("SQLite format 3\0", 16)) == 0;
      if (sqlite && sqlite_by_content &&
          Capture("sqlite3 " + ShellQuote(got + "/" + name) + " .dump") ==
              Capture("sqlite3 " + ShellQuote(want + "/" + name) + " .dump")) {
        continue;
      }
      report += "differs " + name + "; ";
    }
  }
  for (const auto& entry : a) {
    if (b.count(entry.first) == 0)
      report += "unexpected " + entry.first + "; ";
  }
  return report;
}

}  // namespace vesk::test
