// Fuzz harness: the fuzzed bytes as the local file of a Config over a fixed
// default file. Every getter, on the default's sections and keys and a few the
// input names, answers or throws UpdateError (nothing else escapes), and:
//   - a value the default file alone gives is never turned into a failure by
//     the local file (it only wins where it holds the key with the right type);
//   - a local file that is not a JSON object changes no answer at all;
//   - a value set over the local file reads back.
#include <dataupdate/config.h>
#include <dataupdate/error.h>
#include <dataupdate/io_utils.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using vesk::dataupdate::Config;
using vesk::dataupdate::IOUtils;
using vesk::dataupdate::UpdateError;
using vesk::fuzz::Fail;

constexpr char kDefaultText[] = R"({
  "config": {"download_scheme": "http", "cur_volume": "/volume1", "retries": 3},
  "alpha": {"install_dest": "%VOLUME%", "auto_update": true, "min_rsv_space_inbytes": 1048576},
  "beta": {"auto_update": false, "min_rsv_space_inbytes": 0}
})";

// A getter's answer as text ("!" and the message for an UpdateError).
template <typename Get>
std::string Answer(const std::string& what, const Get& get) {
  try {
    return get();
  } catch (const UpdateError& e) {
    return std::string("!") + e.what();
  } catch (const std::exception& e) {
    Fail(what + " let an exception other than UpdateError out: " + e.what());
  }
}

// Every getter on every (section, key) asked, one answer each.
std::vector<std::string> Answers(const Config& config, const std::vector<std::string>& sections,
                                 const std::vector<std::string>& keys) {
  std::vector<std::string> answers;
  for (const std::string& s : sections) {
    for (const std::string& k : keys) {
      std::string where = s;
      where.append(":").append(k);
      answers.push_back(Answer("Get " + where, [&] { return "\"" + config.Get(s, k) + "\""; }));
      answers.push_back(
          Answer("GetAsUInt64 " + where, [&] { return std::to_string(config.GetAsUInt64(s, k)); }));
      answers.push_back(
          Answer("GetAsBool " + where, [&] { return std::to_string(config.GetAsBool(s, k)); }));
    }
  }
  answers.push_back(Answer("GetSections", [&] {
    std::string names;
    for (const std::string& name : config.GetSections())
      names += name + ",";
    return names;
  }));
  return answers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vesk::fuzz::ScratchDir dir("config");
  static const std::string default_path = dir / "default.conf";
  static const std::string local_path = dir / "local.conf";
  static const bool ready = setenv("VESKDBUD_ROOT", dir.path().c_str(), 1) == 0;
  if (!ready)
    Fail("cannot set VESKDBUD_ROOT");
  vesk::fuzz::WriteBytes(default_path, kDefaultText);

  const std::string bytes = vesk::fuzz::AsText(data, size);
  Json::Value local;
  const bool object = vesk::fuzz::ParseJson(bytes, &local) && local.isObject();
  std::vector<std::string> sections = {"config", "alpha", "beta", "none"};
  std::vector<std::string> keys = {
      "download_scheme",       "cur_volume", "retries", "install_dest", "auto_update",
      "min_rsv_space_inbytes", "none"};
  for (const std::string& name : object ? local.getMemberNames() : std::vector<std::string>{}) {
    sections.push_back(name);  // and a few of the keys the input names
    for (const std::string& key :
         local[name].isObject() ? local[name].getMemberNames() : std::vector<std::string>{})
      keys.push_back(key);
  }
  sections.resize(std::min<std::size_t>(sections.size(), 8));
  keys.resize(std::min<std::size_t>(keys.size(), 11));

  Config config(std::make_shared<IOUtils>());
  ::unlink(local_path.c_str());
  config.Init(default_path, local_path);
  const std::vector<std::string> alone = Answers(config, sections, keys);
  vesk::fuzz::WriteBytes(local_path, bytes);
  const std::vector<std::string> layered = Answers(config, sections, keys);
  for (std::size_t i = 0; i < alone.size(); ++i) {
    if (alone[i][0] != '!' && layered[i][0] == '!')
      Fail("the local file made a failure of " + alone[i] + ": " + layered[i]);
    if (!object && alone[i] != layered[i])
      Fail("a local file that is no JSON object changed " + alone[i] + " into " + layered[i]);
  }

  try {
    config.Set("fuzz", "key", "set");
    if (config.Get("fuzz", "key") != "set")
      Fail("a value set over the local file does not read back");
  } catch (const std::exception& e) {
    Fail(std::string("Set over the local file failed: ") + e.what());
  }
  return 0;
}
