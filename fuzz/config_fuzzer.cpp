// Fuzz harness: the configuration getters over a fuzzed local configuration file.
//
// A sandbox below VESKDBUD_ROOT, made once per process, holds fixed and valid
// default files for data_update.conf and databases.conf; the fuzzed bytes become
// both local files. Then every getter of Config, ServiceConfig and DatabaseConfig
// is called, with the sections and keys of the default files and with those the
// fuzzed document names. A getter may give a value or throw UpdateError; any
// other exception (a JSON library error included) is a finding.
//
// The answer is checked against the layering rule of dataupdate/config.h. When
// the local document cannot be read, or is an object whose sections are objects
// (or null), the result is exact: the local value when it is there and converts,
// otherwise the default's value or its UpdateError, with the same message. When
// the local document is readable but shaped otherwise (an array, a scalar, null,
// a section that is not an object), the rule does not say which file wins, so
// the getter may answer from the default file, from the local document where it
// has an answer, or fail with any UpdateError.
#include <dataupdate/config.h>
#include <dataupdate/error.h>
#include <dataupdate/io_utils.h>
#include <stdlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "harness.h"
#include "vesk/root.h"

namespace {

using vesk::dataupdate::Config;
using vesk::dataupdate::DatabaseConfig;
using vesk::dataupdate::IOUtils;
using vesk::dataupdate::ServiceConfig;
using vesk::dataupdate::UpdateError;
using vesk::fuzz::Fail;
using Names = std::vector<std::string>;

constexpr char kServiceDefault[] = "/usr/share/data_update/data_update.conf";
constexpr char kServiceLocal[] = "/usr/vesk/etc/data_update/data_update.conf";
constexpr char kDatabasesDefault[] = "/usr/share/data_update/databases.conf";
constexpr char kDatabasesLocal[] = "/usr/vesk/etc/data_update/databases.conf";

constexpr char kServiceDefaultText[] = R"({
  "config": {"download_scheme": "http", "db_netloc": "127.0.0.1:8080", "db_ver": "v2",
             "cur_volume": "/volume1", "retries": 3, "verbose": false}
})";
constexpr char kDatabasesDefaultText[] = R"({
  "alpha": {"install_dest": "%VOLUME%", "auto_update": true, "min_rsv_space_inbytes": 1048576,
            "format_version": "3"},
  "beta": {"install_dest": "%ROOTFS%", "auto_update": false, "min_rsv_space_inbytes": 0},
  "gamma": {"install_dest": "elsewhere", "auto_update": "yes", "min_rsv_space_inbytes": -5},
  "delta": {}
})";

// Sections and keys asked besides those the fuzzed document names: sections of
// each kind of the default file, and the keys the default file uses plus one
// that no file has. (Each getter reads the files again: every name asked costs
// about 20 file reads, so the lists are short.)
const Names& FixedSections() {
  static const Names sections = {"alpha", "beta", "gamma", ""};
  return sections;
}
const Names& FixedKeys() {
  static const Names keys = {"install_dest", "auto_update", "min_rsv_space_inbytes",
                             "format_version", "no_such_key"};
  return keys;
}

// How many sections, and keys per section, are taken from the fuzzed document.
constexpr std::size_t kNamesFromInput = 4;

// The sandbox: VESKDBUD_ROOT points at a private directory holding the default
// files; the local files are rewritten for each input.
class Sandbox {
 public:
  Sandbox() : dir_("config") {
    if (setenv("VESKDBUD_ROOT", dir_.path().c_str(), 1) != 0)
      Fail("cannot set VESKDBUD_ROOT");
    for (const char* fixed : {kServiceDefault, kServiceLocal})
      boost::filesystem::create_directories(boost::filesystem::path(Path(fixed)).parent_path());
    vesk::fuzz::WriteBytes(Path(kServiceDefault), kServiceDefaultText);
    vesk::fuzz::WriteBytes(Path(kDatabasesDefault), kDatabasesDefaultText);
  }

  std::string Path(const char* fixed) const { return vesk::platform::RootPath(fixed); }

 private:
  vesk::fuzz::ScratchDir dir_;
};

Json::Value ReadDefault(const std::string& text) {
  Json::Value doc;
  if (!vesk::fuzz::ParseJson(text, &doc) || !doc.isObject())
    Fail("the harness's own default file does not parse");
  return doc;
}

// One call's outcome: a value or the text of an UpdateError.
template <typename T>
struct Outcome {
  std::optional<T> value;
  std::string error;

  bool operator==(const Outcome& other) const {
    return value == other.value && (value || error == other.error);
  }
};

template <typename T>
Outcome<T> Value(T value) {
  return {std::move(value), ""};
}
// An UpdateError's text as what() gives it: a C string, so a name holding a NUL
// byte ends the text there.
template <typename T>
Outcome<T> Error(const std::string& text) {
  return {std::nullopt, text.substr(0, text.find('\0'))};
}

std::string Show(const std::string& v) {
  return "\"" + v + "\"";
}
std::string Show(unsigned long long v) {
  return std::to_string(v);
}
std::string Show(bool v) {
  return v ? "true" : "false";
}
std::string Show(const Names& v) {
  std::string text = "[";
  for (const auto& name : v)
    text += (text.size() > 1 ? ", " : "") + Show(name);
  return text + "]";
}
template <typename T>
std::string Show(const Outcome<T>& o) {
  return o.value ? Show(*o.value) : "UpdateError(\"" + o.error + "\")";
}

// What a getter may do: give `exact`, or, when `lenient`, also any of `also`
// or any UpdateError.
template <typename T>
struct Allowed {
  Outcome<T> exact;
  bool lenient = false;
  std::vector<Outcome<T>> also;

  bool Admits(const Outcome<T>& got) const {
    if (got == exact)
      return true;
    if (!lenient)
      return false;
    return !got.value || std::find(also.begin(), also.end(), got) != also.end();
  }
  std::string Describe() const {
    std::string text = Show(exact);
    for (const auto& o : also)
      text += " or " + Show(o);
    return lenient ? text + " or any UpdateError" : text;
  }
};

// Runs one getter; its outcome, or the end of the process for any other exception.
template <typename T, typename Call>
Outcome<T> Run(const std::string& what, const Call& call) {
  try {
    return Value<T>(call());
  } catch (const UpdateError& e) {
    return Error<T>(e.what());
  } catch (const std::exception& e) {
    Fail(what + " let an exception other than UpdateError out: " + e.what());
  }
}

template <typename T, typename Call>
Outcome<T> Check(const std::string& what, const Allowed<T>& allowed, const Call& call) {
  Outcome<T> got = Run<T>(what, call);
  if (!allowed.Admits(got))
    Fail(what + " gave " + Show(got) + ", expected " + allowed.Describe());
  return got;
}

// The layered reads of one configuration file pair, worked out from the parsed
// documents.
class Model {
 public:
  Model(const Config& converter, Json::Value fallback, const std::string& local_text)
      : converter_(converter), default_(std::move(fallback)) {
    readable_ = vesk::fuzz::ParseJson(local_text, &local_);
    well_shaped_ = readable_ && local_.isObject();
    if (well_shaped_) {
      for (const auto& name : local_.getMemberNames())
        well_shaped_ = well_shaped_ && (local_[name].isObject() || local_[name].isNull());
    }
  }

  template <typename T>
  Allowed<T> Get(const std::string& section, const std::string& key) const {
    const Outcome<T> fallback = DefaultAnswer<T>(section, key);
    if (!readable_)
      return {fallback, false, {}};
    const Json::Value& sec = local_.isObject() ? local_[section] : Json::Value::nullSingleton();
    if (!local_.isObject() || !(sec.isObject() || sec.isNull()))
      return {fallback, true, {}};
    Outcome<T> answer = fallback;
    const Json::Value& value = sec.isObject() ? sec[key] : Json::Value::nullSingleton();
    if (!value.isNull()) {
      const Outcome<T> local = Convert<T>(value);
      if (local.value)
        answer = local;
    }
    if (well_shaped_)
      return {answer, false, {}};
    // Another section is not an object: the document as a whole may be refused.
    return {answer, true, {fallback}};
  }

  Allowed<Names> Sections() const {
    const Outcome<Names> fallback = Value(default_.getMemberNames());
    if (!readable_)
      return {fallback, false, {}};
    if (!local_.isObject() && !local_.isNull())
      return {fallback, true, {}};
    const Outcome<Names> local = Value(local_.getMemberNames());
    if (well_shaped_)
      return {local, false, {}};
    return {fallback, true, {local}};
  }

  // Section names worth asking: fixed ones and a few of the local document's.
  Names SectionsToAsk() const {
    Names names = FixedSections();
    if (readable_ && local_.isObject())
      AddFirst(local_.getMemberNames(), &names);
    return Unique(names);
  }

  Names KeysToAsk(const std::string& section) const {
    Names keys = FixedKeys();
    if (readable_ && local_.isObject() && local_[section].isObject())
      AddFirst(local_[section].getMemberNames(), &keys);
    return Unique(keys);
  }

 private:
  static void AddFirst(const Names& more, Names* names) {
    names->insert(
        names->end(), more.begin(),
        more.begin() + static_cast<std::ptrdiff_t>(std::min(more.size(), kNamesFromInput)));
  }

  static Names Unique(Names names) {
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

  template <typename T>
  Outcome<T> Convert(const Json::Value& value) const {
    try {
      return Value<T>(converter_.GetAs<T>(value));
    } catch (const UpdateError& e) {
      return Error<T>(e.what());
    }
  }

  // The default file's answer: its value converted, or "not found".
  template <typename T>
  Outcome<T> DefaultAnswer(const std::string& section, const std::string& key) const {
    const Json::Value& value = default_[section][key];
    if (value.isNull())
      return Error<T>("section-key: '" + section + "'-'" + key + "' not found");
    return Convert<T>(value);
  }

  const Config& converter_;
  Json::Value default_;
  Json::Value local_;
  bool readable_ = false;
  bool well_shaped_ = false;
};

std::string Call(const char* getter, const std::string& section, const std::string& key) {
  return std::string(getter) + "(\"" + section + "\", \"" + key + "\")";
}

// Config's own getters over databases.conf, for every section and key worth asking.
void CheckConfigGetters(const Sandbox& sandbox, const Model& model) {
  Config config(std::make_shared<IOUtils>());
  config.Init(sandbox.Path(kDatabasesDefault), sandbox.Path(kDatabasesLocal));
  Check<Names>("Config::GetSections", model.Sections(), [&] { return config.GetSections(); });
  for (const std::string& section : model.SectionsToAsk()) {
    for (const std::string& key : model.KeysToAsk(section)) {
      Check<std::string>(Call("Config::Get", section, key), model.Get<std::string>(section, key),
                         [&] { return config.Get(section, key); });
      Check<unsigned long long>(Call("Config::GetAsUInt64", section, key),
                                model.Get<unsigned long long>(section, key),
                                [&] { return config.GetAsUInt64(section, key); });
      Check<bool>(Call("Config::GetAsBool", section, key), model.Get<bool>(section, key),
                  [&] { return config.GetAsBool(section, key); });
    }
  }
}

// Replaces a failure by `instead`, as the swallowing getters do.
template <typename T>
Allowed<T> OrInstead(const Allowed<T>& allowed, T instead) {
  const auto swallow = [&](const Outcome<T>& o) { return o.value ? o : Value<T>(instead); };
  Allowed<T> result{swallow(allowed.exact), false, {}};
  if (allowed.lenient)
    result.also.push_back(Value<T>(instead));
  for (const auto& o : allowed.also)
    result.also.push_back(swallow(o));
  // Every admitted outcome is now a value: a failure is no longer acceptable.
  result.lenient = false;
  return result;
}

// What a getter deriving a path from install_dest must give for one
// install_dest outcome.
Outcome<std::string> FromInstallDest(const Outcome<std::string>& dest, const std::string& on_volume,
                                     const std::string& on_rootfs) {
  if (!dest.value)
    return dest;
  if (*dest.value == "%VOLUME%")
    return Value(on_volume);
  if (*dest.value == "%ROOTFS%")
    return Value(on_rootfs);
  return Error<std::string>("Invalid value '" + *dest.value +
                            "' for '%s/@database/autoupdate' field");
}

Allowed<std::string> PathAllowed(const Allowed<std::string>& dest, const std::string& on_volume,
                                 const std::string& on_rootfs) {
  Allowed<std::string> result{FromInstallDest(dest.exact, on_volume, on_rootfs), dest.lenient, {}};
  for (const auto& o : dest.also)
    result.also.push_back(FromInstallDest(o, on_volume, on_rootfs));
  return result;
}

void CheckDatabase(const ServiceConfig& service, const Model& databases, const std::string& id,
                   const std::string& volume) {
  const std::string where = "DatabaseConfig(\"" + id + "\")::";
  std::shared_ptr<DatabaseConfig> db;
  try {
    db = service.GetDatabaseConfig(id);
  } catch (const std::exception& e) {
    // GetCurVolume just gave a volume from the same files.
    Fail("ServiceConfig::GetDatabaseConfig(\"" + id + "\") failed: " + e.what());
  }
  Check<bool>(where + "GetScheduled", OrInstead(databases.Get<bool>(id, "auto_update"), true),
              [&] { return db->GetScheduled(); });
  Check<unsigned long long>(
      where + "GetMinReservedSpaceInbytes",
      OrInstead(databases.Get<unsigned long long>(id, "min_rsv_space_inbytes"), 0ULL),
      [&] { return db->GetMinReservedSpaceInbytes(); });
  const Allowed<std::string> dest = databases.Get<std::string>(id, "install_dest");
  Check<std::string>(where + "GetInstallPrefix",
                     PathAllowed(dest, volume + "/@database/autoupdate/" + id,
                                 vesk::platform::RootPath("/var/db/") + id),
                     [&] { return db->GetInstallPrefix(); });
  Check<std::string>(where + "GetRootDirectory",
                     PathAllowed(dest, volume, vesk::platform::RootPath("/")),
                     [&] { return db->GetRootDirectory(); });
}

void CheckServiceGetters(const Model& service_model, const Model& databases) {
  const ServiceConfig service(std::make_shared<Config>(std::make_shared<IOUtils>()));
  const Outcome<Names> ids = Check<Names>("ServiceConfig::GetDatabaseIDs", databases.Sections(),
                                          [&] { return service.GetDatabaseIDs(); });
  Check<std::string>("ServiceConfig::GetDownloadScheme",
                     service_model.Get<std::string>("config", "download_scheme"),
                     [&] { return service.GetDownloadScheme(); });
  Check<std::string>("ServiceConfig::GetDBInfoDomainName",
                     service_model.Get<std::string>("config", "db_netloc"),
                     [&] { return service.GetDBInfoDomainName(); });
  Check<std::string>("ServiceConfig::GetDBInfoVersion",
                     service_model.Get<std::string>("config", "db_ver"),
                     [&] { return service.GetDBInfoVersion(); });
  const Outcome<std::string> volume = Check<std::string>(
      "ServiceConfig::GetCurVolume", service_model.Get<std::string>("config", "cur_volume"),
      [&] { return service.GetCurVolume(); });

  // The databases named by GetDatabaseIDs and by the default file, a few of each.
  Names to_ask = {"alpha", "beta", "gamma", "delta"};
  if (ids.value) {
    to_ask.insert(to_ask.end(), ids.value->begin(),
                  ids.value->begin() +
                      static_cast<std::ptrdiff_t>(std::min(ids.value->size(), kNamesFromInput)));
  }
  std::sort(to_ask.begin(), to_ask.end());
  to_ask.erase(std::unique(to_ask.begin(), to_ask.end()), to_ask.end());
  for (const std::string& id : to_ask) {
    if (!volume.value) {
      // Without a current volume there is no database configuration to make.
      Check<bool>("ServiceConfig::GetDatabaseConfig(\"" + id + "\")",
                  Allowed<bool>{Error<bool>(volume.error), false, {}}, [&] {
                    service.GetDatabaseConfig(id);
                    return true;
                  });
      continue;
    }
    CheckDatabase(service, databases, id, *volume.value);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Sandbox sandbox;
  static const Json::Value service_default = ReadDefault(kServiceDefaultText);
  static const Json::Value databases_default = ReadDefault(kDatabasesDefaultText);
  static const Config converter(std::make_shared<IOUtils>());

  const std::string bytes = vesk::fuzz::AsText(data, size);
  vesk::fuzz::WriteBytes(sandbox.Path(kServiceLocal), bytes);
  vesk::fuzz::WriteBytes(sandbox.Path(kDatabasesLocal), bytes);

  const Model service_model(converter, service_default, bytes);
  const Model databases_model(converter, databases_default, bytes);
  CheckConfigGetters(sandbox, databases_model);
  CheckServiceGetters(service_model, databases_model);
  return 0;
}
