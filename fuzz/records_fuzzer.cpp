// Fuzz harness: the record readers over arbitrary JSON documents.
//
// Every record reader reads the parsed root and the values up to three levels
// below it (where the database-info document holds them), and may only fail with:
//   - UpdateError with the default code and an "Invalid json object for ..."
//     message (a wrong shape, including a non-object where an object belongs);
//   - std::invalid_argument / std::out_of_range from the "stoi" of a version
//     text or a diff name that holds no number or too large a one.
// Anything else, a Json::Exception included, is a finding. What a reader accepts
// must also read back equal from what the writers make of it.
#include <dataupdate/error.h>
#include <dataupdate/records.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include "harness.h"

namespace {

using vesk::dataupdate::DatabaseStatus;
using vesk::dataupdate::DiffInfo;
using vesk::dataupdate::FileStatus;
using vesk::dataupdate::RemoteInfo;
using vesk::dataupdate::UpdateError;
using vesk::fuzz::Fail;

// How deep below the root, and how many values in all, the readers are tried on.
constexpr int kMaxDepth = 3;
constexpr int kMaxValues = 64;

// Runs one reader; returns normally for every accepted failure and ends the
// process for any other.
template <typename Read>
void Expect(const char* reader, const Read& read) {
  try {
    read();
  } catch (const UpdateError& e) {
    if (e.code() != UpdateError::kGeneral ||
        std::string(e.what()).rfind("Invalid json object for ", 0) != 0)
      Fail(std::string(reader) + ": unexpected UpdateError \"" + e.what() + "\" code " +
           std::to_string(e.code()));
  } catch (const std::logic_error& e) {  // invalid_argument and out_of_range
    if (std::string(e.what()) != "stoi")
      Fail(std::string(reader) + ": " + e.what() + " not from stoi");
  } catch (const std::exception& e) {
    Fail(std::string(reader) + ": unexpected exception: " + e.what());
  }
}

void ReadAllRecords(const Json::Value& value) {
  Expect("RemoteInfo::FromJson", [&] {
    const RemoteInfo info = RemoteInfo::FromJson(value);
    if (!(RemoteInfo::FromJson(RemoteInfo::ToJson(info)) == info))
      Fail("RemoteInfo does not read back equal from its JSON form");
  });
  Expect("DiffInfo::BatchFromJson", [&] {
    const std::map<int, DiffInfo> diffs = DiffInfo::BatchFromJson(value);
    if (diffs.size() > value.size())
      Fail("DiffInfo::BatchFromJson made more entries than the value has members");
  });
  Expect("FileStatus::BatchFromJson", [&] {
    const auto statuses = FileStatus::BatchFromJson(value);
    if (FileStatus::BatchFromJson(FileStatus::BatchToJson(statuses)) != statuses)
      Fail("FileStatus batch does not read back equal from its JSON form");
  });
  Expect("DatabaseStatus::FromJson", [&] {
    const DatabaseStatus status = DatabaseStatus::FromJson(value);
    if (DatabaseStatus::FromJson(DatabaseStatus::ToJson(status)) != status)
      Fail("DatabaseStatus does not read back equal from its JSON form");
  });
}

void Walk(const Json::Value& value, int depth, int* budget) {
  if (*budget <= 0)
    return;
  --*budget;
  ReadAllRecords(value);
  if (depth == kMaxDepth || !(value.isObject() || value.isArray()))
    return;
  for (const Json::Value& member : value)
    Walk(member, depth + 1, budget);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Json::Value root;
  if (!vesk::fuzz::ParseJson(vesk::fuzz::AsText(data, size), &root))
    return 0;
  int budget = kMaxValues;
  Walk(root, 0, &budget);
  return 0;
}
