#include "dataupdate/hook.h"

#include <sstream>
#include <type_traits>

#include "log.h"
#include "log_sites.h"
#include "vlib/plugin_sdk.h"

namespace vesk::dataupdate {

static_assert(std::is_same_v<VLIBPluginHandle, unsigned long>,
              "hook.h stores the SDK handle as unsigned long");

namespace {
constexpr char kModuleName[] = "database_autoupdate";
constexpr char kPath[] = "database_autoupdate/version_change";
constexpr char kDelimiter[] = ":";
}  // namespace

UpdateHook::UpdateHook(const std::string& database_id, const std::set<std::string>& changed_files)
    : handle_(0), module_name_(kModuleName), path_(kPath) {
  // A failed initialisation is only logged: the update goes on without plug-ins.
  if (VLIBPluginSDKInit(module_name_.c_str(), path_.c_str(), &handle_) != 0)
    log::Write(log::site::kHookInitFailed, module_name_, path_);
  SetEnv("DATABASE", database_id);
  SetEnv("CHANGED_FILES", JoinFiles(changed_files));
  SetEnv("DELIMITER", kDelimiter);
}

UpdateHook::UpdateHook(const UpdateHook& other) : handle_(0) {
  *this = other;
}

UpdateHook& UpdateHook::operator=(const UpdateHook& other) {
  if (this == &other)
    return *this;
  handle_ = other.handle_;
  module_name_ = other.module_name_;
  path_ = other.path_;
  return *this;
}

UpdateHook::~UpdateHook() {
  // By the time a base destructor runs, a subclass's override is gone: name the
  // release this class makes rather than seem to dispatch.
  UpdateHook::Clear();
}

bool UpdateHook::ExecPre() {
  return ExecAction(VLIB_PLUGIN_ACTION_PRE_UPDATE);
}

bool UpdateHook::ExecPost() {
  return ExecAction(VLIB_PLUGIN_ACTION_POST_UPDATE);
}

void UpdateHook::Clear() {
  // A copy may have released the shared handle already; the SDK refuses it then.
  if (handle_ != 0)
    VLIBPluginExit(handle_);
}

bool UpdateHook::SetEnv(const std::string& key, const std::string& value) {
  if (handle_ == 0) {
    log::Write(log::site::kHookArgNotInit);
    return false;
  }
  if (VLIBPluginSetArg(handle_, key.c_str(), value.c_str()) == 0)
    return true;
  log::Write(log::site::kHookSetArgFailed, key, value);
  return false;
}

bool UpdateHook::ExecAction(_tag_sdk_plugin_action_ action) {
  if (handle_ == 0) {
    log::Write(log::site::kHookActionNotInit);
    return false;
  }
  if (VLIBPluginAction(action, handle_) == 0)
    return true;
  log::Write(log::site::kHookActionFailed, static_cast<int>(action));
  return false;
}

std::string UpdateHook::JoinFiles(const std::set<std::string>& files) const {
  std::ostringstream joined;
  for (const auto& file : files)
    joined << file << kDelimiter;
  std::string text = joined.str();
  if (!text.empty())
    text.pop_back();
  return text;
}

}  // namespace vesk::dataupdate
