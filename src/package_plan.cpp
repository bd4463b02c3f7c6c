#include "package_plan.h"

#include <limits.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <functional>

#include "dataupdate/error.h"
#include "dataupdate/io_utils.h"

namespace fs = boost::filesystem;

namespace vesk::dataupdate {
namespace {

// A name as messages show it: control bytes and "\" escaped, at most 200 bytes.
std::string Shown(const std::string& name) {
  constexpr size_t kLimit = 200;
  std::string shown;
  for (size_t i = 0; i < name.size() && i < kLimit; ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f || c == '\\') {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      shown += hex;
    } else {
      shown += static_cast<char>(c);
    }
  }
  return name.size() > kLimit ? shown + "..." : shown;
}

std::vector<std::string> Components(const std::string& relative) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const size_t end = relative.find('/', start);
    parts.push_back(relative.substr(start, end == std::string::npos ? end : end - start));
    if (end == std::string::npos)
      return parts;
    start = end + 1;
  }
}

enum class NameProblem { kNone, kNul, kTooLong, kBadComponent };

// Whether `relative` names something strictly below a directory by plain
// components: no NUL, no empty, "." or ".." component, within NAME_MAX per
// component and PATH_MAX in all.
NameProblem CheckRelativeName(const std::string& relative) {
  if (relative.find('\0') != std::string::npos)
    return NameProblem::kNul;
  if (relative.size() >= PATH_MAX)
    return NameProblem::kTooLong;
  bool too_long = false;
  for (const std::string& part : Components(relative)) {
    if (part.empty() || part == "." || part == "..")
      return NameProblem::kBadComponent;
    too_long = too_long || part.size() > NAME_MAX;
  }
  return too_long ? NameProblem::kTooLong : NameProblem::kNone;
}

// Whether `path`, with every link in its existing part resolved, lies inside
// the directory `base` (itself resolved). Missing trailing parts are taken as
// they are written; they hold no ".." (the names were checked first).
bool ResolvesInside(const std::string& path, const std::string& base) {
  boost::system::error_code ec;
  const fs::path root = fs::weakly_canonical(base, ec);
  if (ec)
    return false;
  const fs::path resolved = fs::weakly_canonical(path, ec);
  if (ec)
    return false;
  const auto parts = [](const fs::path& p) {
    std::vector<std::string> names;
    for (const fs::path& part : p) {
      if (part != "." && !part.empty())
        names.push_back(part.string());
    }
    return names;
  };
  const std::vector<std::string> outer = parts(root);
  const std::vector<std::string> inner = parts(resolved);
  return inner.size() > outer.size() && std::equal(outer.begin(), outer.end(), inner.begin());
}

// An entry's name: it begins with "/" and stays below the install directory,
// also through links already installed.
void CheckEntryName(const std::string& name, const std::string& install_prefix,
                    const std::function<UpdateError(const std::string&)>& refuse) {
  if (name.find('\0') != std::string::npos)
    throw refuse("NUL in the name");
  if (name.empty() || name[0] != '/')
    throw refuse("the name must begin with \"/\"");
  switch (install_prefix.size() + name.size() >= PATH_MAX ? NameProblem::kTooLong
                                                          : CheckRelativeName(name.substr(1))) {
    case NameProblem::kNone:
      break;
    case NameProblem::kNul:
      throw refuse("NUL in the name");
    case NameProblem::kTooLong:
      throw refuse("name longer than the system allows");
    case NameProblem::kBadComponent:
      throw refuse("empty, \".\" or \"..\" component in the name");
  }
  if (!ResolvesInside(install_prefix + name, install_prefix))
    throw refuse("it leads outside the install directory through a link");
}

// A "create" or "update" input: a regular file below the extracted package,
// reached by plain components, none of them a link.
void CheckEntryInput(const std::string& input, const std::string& delta_dir,
                     const std::function<UpdateError(const std::string&)>& refuse) {
  if (input.empty() || input[0] == '/' || CheckRelativeName(input) != NameProblem::kNone ||
      delta_dir.size() + 1 + input.size() >= PATH_MAX) {
    throw refuse("\"input_file\" must be a relative name inside the package");
  }
  std::string walked = delta_dir;
  for (const std::string& part : Components(input)) {
    walked += "/" + part;
    struct stat st;
    const bool last = walked.size() == delta_dir.size() + 1 + input.size();
    if (lstat(walked.c_str(), &st) != 0 || S_ISLNK(st.st_mode) ||
        (last ? !S_ISREG(st.st_mode) : !S_ISDIR(st.st_mode))) {
      throw refuse("\"input_file\" is not a regular file in the package");
    }
  }
}

}  // namespace

Plan PlanFullPackage(const std::string& extract_dir) {
  IOUtils io;
  Plan plan;
  try {
    const fs::path base = fs::canonical(extract_dir);
    io.IterateDirectory(
        extract_dir,
        [&](const std::string& path) {
          if (!fs::is_regular_file(fs::status(path)))
            return;
          const fs::path file = fs::canonical(path);
          const fs::path relative = file.lexically_relative(base);
          if (relative.empty() || *relative.begin() == "..")
            throw UpdateError("path not in base");
          plan[relative.string()] = ModifyInfo{ModifyInfo::kOverride, path};
        },
        true);
  } catch (const std::exception& e) {
    throw UpdateError(std::string("Fail to calculate modify info: ") + e.what());
  }
  return plan;
}

PatchStep PlanPatch(const std::string& name, const std::string& operation,
                    const std::string& input_path, const std::string& sum_dir) {
  PatchStep step{name, PatchStep::Kind::kCreate, PatchStep::Decoder::kNone, input_path,
                 sum_dir + "/" + FlatFileName(name)};
  if (operation == "update") {
    step.kind = PatchStep::Kind::kUpdate;
    const std::string extension = fs::path(input_path).extension().string();
    if (extension == ".vcdiff")
      step.decoder = PatchStep::Decoder::kVcdiff;
    else if (extension == ".sqlitediff")
      step.decoder = PatchStep::Decoder::kSqlite;
    else
      throw UpdateError("Unsupported diff type: " + extension);
  } else if (operation == "delete") {
    step.kind = PatchStep::Kind::kDelete;
  } else if (operation != "create") {
    throw UpdateError(
        (NoexceptFormat("Unknown operation %s for file %s") % operation % name).str());
  }
  return step;
}

std::vector<PatchStep> PlanDiffVersion(const Json::Value& patch_infos,
                                       const std::string& index_path, const std::string& delta_dir,
                                       const std::string& install_prefix,
                                       const std::string& sum_dir, const Plan& earlier) {
  if (!patch_infos.isObject())
    throw UpdateError("Invalid patch infos: " + index_path);
  std::map<std::string, std::string> flat_owner;
  for (const auto& entry : earlier)
    flat_owner.emplace(FlatFileName(entry.first), entry.first);

  // Every entry's shape, name and input first, so that none is decided on
  // until all of them are acceptable.
  const std::vector<std::string> names = patch_infos.getMemberNames();
  for (const std::string& name : names) {
    const auto refuse = [&name](const std::string& reason) {
      return UpdateError("Invalid patch info for " + Shown(name) + ": " + reason);
    };
    const Json::Value& info = patch_infos[name];
    if (!info.isObject())
      throw refuse("not an object");
    if (!info["operation"].isString())
      throw refuse("\"operation\" is not a string");
    if (!info["input_file"].isString())
      throw refuse("\"input_file\" is not a string");
    CheckEntryName(name, install_prefix, refuse);
    const std::string operation = info["operation"].asString();
    if (operation == "create" || operation == "update")
      CheckEntryInput(info["input_file"].asString(), delta_dir, refuse);
    const auto [owner, added] = flat_owner.emplace(FlatFileName(name), name);
    if (!added && owner->second != name)
      throw refuse("its temporary file is also that of " + Shown(owner->second));
  }

  std::vector<PatchStep> steps;
  for (const std::string& name : names) {
    const Json::Value& info = patch_infos[name];
    steps.push_back(PlanPatch(name, info["operation"].asString(),
                              delta_dir + "/" + info["input_file"].asString(), sum_dir));
  }
  return steps;
}

void CheckTargetsInside(const Plan& plan, const std::string& dir) {
  for (const auto& entry : plan) {
    const std::string& name = entry.first;
    const std::string relative = !name.empty() && name[0] == '/' ? name.substr(1) : name;
    const std::string target = (fs::path(dir) / name).string();
    if (CheckRelativeName(relative) != NameProblem::kNone || !ResolvesInside(target, dir))
      throw UpdateError("Refused to write outside the install directory: " + Shown(target));
  }
}

}  // namespace vesk::dataupdate
