// Fuzz harness: the record readers over arbitrary JSON documents.
//
// The bytes are parsed as the library parses its documents; every record reader
// then reads the root and the values nested below it (the database-info document
// holds the records two and three levels down). A reader may only fail with:
//   - UpdateError with the default code and one of the five "Invalid json object
//     for ..." messages (a wrong shape, including a non-object where an object
//     belongs);
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
#include <set>
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

const std::set<std::string>& ShapeMessages() {
  static const std::set<std::string> messages = {
      "Invalid json object for RemoteInfo", "Invalid json object for DiffInfo",
      "Invalid json object for FileStatus", "Invalid json object for FileStatuses",
      "Invalid json object for DatabaseStatus"};
  return messages;
}

// Runs one reader; returns normally for every accepted failure and ends the
// process for any other.
template <typename Read>
void Expect(const char* reader, const Read& read) {
  try {
    read();
  } catch (const UpdateError& e) {
    if (e.code() != UpdateError::kGeneral || ShapeMessages().count(e.what()) == 0)
      Fail(std::string(reader) + ": unexpected UpdateError \"" + e.what() + "\" code " +
           std::to_string(e.code()));
  } catch (const std::invalid_argument& e) {
    if (std::string(e.what()) != "stoi")
      Fail(std::string(reader) + ": invalid_argument not from stoi: " + e.what());
  } catch (const std::out_of_range& e) {
    if (std::string(e.what()) != "stoi")
      Fail(std::string(reader) + ": out_of_range not from stoi: " + e.what());
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
  Expect("DiffInfo::FromJson", [&] { DiffInfo::FromJson(value); });
  Expect("DiffInfo::BatchFromJson", [&] {
    const std::map<int, DiffInfo> diffs = DiffInfo::BatchFromJson(value);
    if (diffs.size() > value.size())
      Fail("DiffInfo::BatchFromJson made more entries than the value has members");
  });
  Expect("FileStatus::FromJson", [&] {
    const FileStatus status = FileStatus::FromJson(value);
    if (FileStatus::FromJson(FileStatus::ToJson(status)) != status)
      Fail("FileStatus does not read back equal from its JSON form");
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
