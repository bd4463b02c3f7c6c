// The plan of an update: what each file of the install directory becomes,
// decided from an extracted package (or one diff package after another) and
// the installed tree before anything is written. Every refusal of a package's
// names, operations and inputs is made here, with the messages the engine
// falls back on; making a plan only reads (stat, lstat, readlink) the trees it
// is given. The strategies carry a plan out in a staging tree.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "dataupdate/strategy.h"

namespace vesk::dataupdate {

// Target name (relative to the install directory; a diff's names begin with
// "/") -> write it from `path`, or delete it.
using Plan = std::map<std::string, ModifyInfo>;

// One entry of a diff package's "patch_infos.json", decided.
struct PatchStep {
  enum class Kind { kCreate, kUpdate, kDelete };
  enum class Decoder { kNone, kVcdiff, kSqlite };
  std::string name;  // "/dir/file"
  Kind kind = Kind::kCreate;
  Decoder decoder = Decoder::kNone;  // an update's delta
  std::string input;                 // the file in the extracted package
  std::string prepared;              // the file in the sum directory that holds the result

  // What the step leaves in the plan.
  ModifyInfo Result() const {
    return {kind == Kind::kDelete ? ModifyInfo::kDelete : ModifyInfo::kOverride, prepared};
  }
};

// Every regular file of the extracted package `extract_dir`, by its name
// relative to it, written from itself. Throws UpdateError "Fail to calculate
// modify info: ...".
Plan PlanFullPackage(const std::string& extract_dir);

// One entry: "create" and "update" (".vcdiff" or ".sqlitediff") prepare
// "<sum_dir>/<flat name>", "delete" removes. Throws UpdateError "Unknown
// operation OP for file NAME" or "Unsupported diff type: .EXT".
PatchStep PlanPatch(const std::string& name, const std::string& operation,
                    const std::string& input_path, const std::string& sum_dir);

// The steps of one version's index `patch_infos` (read from `index_path` in
// `delta_dir`), in name order, after every entry was found acceptable: names
// below `install_prefix` by plain components, also through links installed
// there; inputs that are regular files below `delta_dir`; no name sharing its
// prepared file with another, of this version or of the `earlier` ones. Throws
// UpdateError "Invalid patch infos: PATH" or "Invalid patch info for NAME:
// reason", or PlanPatch's.
std::vector<PatchStep> PlanDiffVersion(const Json::Value& patch_infos,
                                       const std::string& index_path, const std::string& delta_dir,
                                       const std::string& install_prefix,
                                       const std::string& sum_dir, const Plan& earlier);

// Every target of `plan` resolves inside `dir`, also through links already
// there. Throws UpdateError "Refused to write outside the install directory:
// PATH".
void CheckTargetsInside(const Plan& plan, const std::string& dir);

}  // namespace vesk::dataupdate
