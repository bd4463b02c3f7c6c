// Faults that need real mounts: a volume that is another file system than the
// root, and full disks (small tmpfs mounts over the volume and over the local
// configuration directory).
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "service_fixture.h"

namespace fs = boost::filesystem;
using namespace vesk::dataupdate;
using namespace vesk::test;

namespace {

// Fills the file system holding `dir` with the file `dir`/filler until it is full.
void Fill(const std::string& dir) {
  std::ofstream out(dir + "/filler", std::ios::binary);
  const std::string block(4096, 'f');
  while (out.write(block.data(), static_cast<std::streamsize>(block.size())) && out.flush()) {
  }
}

bool MountTmpfs(const Findings& findings, const std::string& where, const char* options) {
  const bool ok = mount("tmpfs", where.c_str(), "tmpfs", 0, options) == 0;
  findings.Expect(ok, "mount tmpfs at " + where + ": " + std::strerror(errno));
  return ok;
}

class MountFaultTest : public ServiceTest {
 protected:
  Service service;
};

// db1 lives on the root file system while its packages are extracted on the
// volume, a file system of its own: install, diff and repair copy across
// ("Invalid cross-device link" once stopped every such install).
TEST_F(MountFaultTest, ADatabaseOnTheRootFileSystemIsInstalledFromAVolumeOfItsOwn) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1", "%ROOTFS%"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string db1 = sandbox.Path("/var/db/db1");

  InMountNamespace([&](const Findings& findings) {
    if (!MountTmpfs(findings, volume, "size=16m"))
      return;
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "", "release 0");
    Release("db1", 1);
    findings.Equal(repo.Publish(), 0, "publish release 1");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db1");
    findings.Equal(log.Matching("Diff update fail").size(), 0u, "fallbacks from the diff");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "release 1");
    WriteFile(db1 + "/readme.txt", "damaged");
    service.update.FixProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1), true), "", "repaired");
  });
}

// A 3 MiB volume that db1's release 1 (4 MiB, compressed in the packages)
// fills while extracting: the update fails clearly and loses nothing, and
// succeeds once there is room. (The extraction once "succeeded" with a hole
// where the data did not fit.) Then a plug-in fills the volume after db2's
// update was checked for space: the replacement moves prepared files within
// the volume and still completes.
TEST_F(MountFaultTest, AFullVolumeFailsTheUpdateClearlyAndTheNextRunWithSpaceSucceeds) {
  WriteDefaultConfig(sandbox, repo, volume, {{"db1", "%ROOTFS%"}, {"db2"}});
  Release("db1", 0);
  Release("db2", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string db1 = sandbox.Path("/var/db/db1");
  const std::string plugin =
      sandbox.Path("/usr/vesk/lib/plugins/database_autoupdate/version_change/10-fill");
  const std::string fill_mark = sandbox / "fill";

  InMountNamespace([&](const Findings& findings) {
    if (!MountTmpfs(findings, volume, "size=3m"))
      return;
    const auto tmp_gone = [&] {
      const std::string tmp = volume + "/@tmp/data_update";
      return !fs::exists(tmp) || fs::is_empty(tmp);
    };
    service.update.UpdateAllProjects();
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "", "db1 release 0");
    findings.Equal(CompareTrees(Prefix("db2"), repo.SourceDir("db2", kFirst)), "", "db2 release 0");
    const std::string status0 = ReadFile(StatusPath("db1"));

    // Extraction: neither the diff nor the whole package fits.
    repo.CopyVersion("db1", kFirst, kFirst + 1);
    repo.SetFile("db1", kFirst + 1, "big.bin", std::string(4 << 20, 'a'));
    findings.Equal(repo.Publish(), 0, "publish db1 release 1");
    SetAge(Cache(), 3601 + 60);
    const std::string tmp = volume + "/@tmp/data_update/db1_";
    log.Clear();
    findings.Throws([&] { service.update.UpdateProject("db1"); },
                    "veskarchive_extract " + tmp + std::to_string(kFirst + 1) + " failed, ret: 22",
                    "db1 update on a full volume");
    findings.Expect(log.Contains("warning: updater.cpp:83 Diff update fail, try full update: "
                                 "veskarchive_extract " +
                                 tmp + "d" + std::to_string(kFirst + 1) + " failed, ret: 22"),
                    "the diff package's extraction did not fail first");
    findings.Equal(ReadFile(StatusPath("db1")), status0, "status after the failed extraction");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst)), "",
                   "installed files after the failed extraction");
    findings.Expect(tmp_gone(), "temporary files left by the failed extraction");

    // Space is freed: the next run succeeds.
    if (mount(nullptr, volume.c_str(), nullptr, MS_REMOUNT, "size=32m") != 0) {
      findings.Expect(false, std::string("grow the volume: ") + std::strerror(errno));
      return;
    }
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(db1, repo.SourceDir("db1", kFirst + 1)), "",
                   "db1 release 1 once there is room");

    // Replacement: db2 is prepared and checked with room to spare, then the
    // volume fills up before its installed files are replaced. The prepared
    // files are moved into place on the same volume, so the replacement needs
    // no new space and completes.
    repo.CopyVersion("db2", kFirst, kFirst + 1);
    repo.SetFile("db2", kFirst + 1, "big.bin", std::string(4 << 20, 'a'));
    findings.Equal(repo.Publish(), 0, "publish db2 release 1");
    SetAge(Cache(), 3601 + 60);
    service.update.UpdateProject("db2");
    WriteFile(plugin, "#!/bin/sh\n[ \"$1\" = 4 ] && [ -e " + ShellQuote(fill_mark) +
                          " ] && { dd if=/dev/zero of=" + ShellQuote(volume + "/filler") +
                          " bs=64k 2>/dev/null; true; }\nexit 0\n");
    Shell("chmod +x " + ShellQuote(plugin));
    WriteFile(fill_mark, "");
    repo.CopyVersion("db2", kFirst + 1, kFirst + 2);
    repo.SetFile("db2", kFirst + 2, "big.bin", std::string(6 << 20, 'b'));
    findings.Equal(repo.Publish(), 0, "publish db2 release 2");
    SetAge(Cache(), 3601 + 60);
    log.Clear();
    service.update.UpdateProject("db2");
    findings.Expect(fs::exists(volume + "/filler"), "the plug-in filled the volume");
    findings.Expect(log.Matching("Diff update fail").empty(), "the diff was not the one applied");
    findings.Equal(CompareTrees(Prefix("db2"), repo.SourceDir("db2", kFirst + 2), true), "",
                   "db2 release 2 replaced on a full volume");
    findings.Equal(service.info->GetDatabaseStatus("db2").data_version, kFirst + 2,
                   "db2 status after release 2");
    findings.Expect(tmp_gone(), "temporary files left by the replacement");
    fs::remove(fill_mark);
    fs::remove(volume + "/filler");
  });
}

// A set that grows data_update.conf on a full disk fails and keeps the file
// whole. (Written in place, it was truncated and the volume lost.)
TEST_F(MountFaultTest, AConfigurationWrittenOnAFullDiskKeepsTheCurrentVolume) {
  WriteDefaultConfig(sandbox, repo, "", {{"db1"}});
  Release("db1", 0);
  ASSERT_EQ(repo.Publish(), 0);
  const std::string dir = sandbox.Path("/usr/vesk/etc/data_update");
  fs::create_directories(dir);
  const std::string local = dir + "/data_update.conf";

  // The store behind the service configuration: data_update.conf.
  const auto store = std::make_shared<Config>(service.io);
  const ServiceConfig view(store);

  InMountNamespace([&](const Findings& findings) {
    if (!MountTmpfs(findings, dir, "size=64k"))
      return;
    // One page of configuration, the current volume in it.
    service.config->SetCurVolume(volume);
    Json::Value root = service.io->ReadJson(local);
    root["config"]["note"] = std::string(4000 - root.toStyledString().size(), 'n');
    service.io->WriteJson(local, root);
    const std::string before = ReadFile(local);
    findings.Expect(before.size() < 4096 && before.size() > 3900, "one page of configuration");
    Fill(dir);

    findings.Throws([&] { store->Set("config", "note", std::string(4200, 'm')); },
                    "Fail to set config config:note", "set on a full disk");
    findings.Equal(ReadFile(local), before, "the configuration after the failed set");
    findings.Equal(service.config->GetCurVolume(), volume, "current volume");
    service.update.UpdateProject("db1");
    findings.Equal(CompareTrees(Prefix("db1"), repo.SourceDir("db1", kFirst)), "",
                   "update after the failed set");

    fs::remove(dir + "/filler");
    store->Set("config", "note", std::string(4200, 'm'));
    findings.Equal(store->Get("config", "note"), std::string(4200, 'm'), "set with room");
    findings.Equal(service.config->GetCurVolume(), volume, "current volume with room");
  });
}

}  // namespace
