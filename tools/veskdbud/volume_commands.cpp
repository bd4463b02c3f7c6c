// init and volume: choosing the volume that holds the databases, and telling
// the library that a volume was mounted or is about to leave. The library's
// volume operations never fail; the tool reads the recorded volume before and
// after to say what happened.
#include <filesystem>
#include <iostream>

#include "cli.h"
#include "commands.h"
#include "dataupdate/update.h"
#include "dataupdate/volume_handler.h"
#include "library.h"

namespace vesk::cli {
namespace {

// The mount path as the library records it: absolute, without "." or ".."
// components or a trailing "/". Links are not resolved.
std::string MountPath(const std::string& path) {
  std::string normal = std::filesystem::absolute(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/')
    normal.pop_back();
  return normal;
}

int Mount(const Library& lib, const std::string& path) {
  const std::string before = lib.service->GetCurVolume();
  dataupdate::VolumeHandler(lib.service).MountVolumeEvent(path);
  const std::string after = lib.service->GetCurVolume();
  if (before == path) {
    std::cout << "the databases already live on " << path << std::endl;
  } else if (!before.empty()) {
    std::cout << "the databases stay on " << before << "; " << path << " is not needed"
              << std::endl;
  } else if (after == path) {
    std::cout << "the databases now live on " << path << std::endl;
  } else {
    throw CliError(kExitNoVolume, path +
                                      " is not a suitable volume (see --verbose); no volume "
                                      "holds the databases");
  }
  return kExitOk;
}

int Unmount(const Library& lib, const std::string& path) {
  const std::string before = lib.service->GetCurVolume();
  dataupdate::VolumeHandler(lib.service).UnmountVolumeEvent(path);
  const std::string after = lib.service->GetCurVolume();
  if (before != path) {
    std::cout << path << " does not hold the databases ("
              << (before.empty() ? "no volume does" : before + " does") << "); nothing to do"
              << std::endl;
  } else if (!after.empty()) {
    std::cout << "the databases moved from " << before << " to " << after << std::endl;
  } else {
    throw CliError(kExitNoVolume,
                   "the databases could not move to another volume (see --verbose); automatic "
                   "updates are off until a volume is mounted");
  }
  return kExitOk;
}

}  // namespace

int RunInit(const Args&) {
  dataupdate::InitService();
  const std::string volume = Library().service->GetCurVolume();
  if (volume.empty()) {
    throw CliError(kExitNoVolume,
                   "no suitable volume found (see --verbose); automatic updates are off until "
                   "a volume is mounted");
  }
  std::cout << "the databases live on " << volume << std::endl;
  return kExitOk;
}

int RunVolume(const Args& args) {
  const std::string event = args.Operand(0);
  if (event != "mount" && event != "unmount") {
    throw CliError(kExitUsage, "volume: expected 'mount' or 'unmount', got '" + event +
                                   "' (see 'veskdbud volume --help')");
  }
  const std::string path = MountPath(args.Operand(1));
  const Library lib;
  return event == "mount" ? Mount(lib, path) : Unmount(lib, path);
}

}  // namespace vesk::cli
