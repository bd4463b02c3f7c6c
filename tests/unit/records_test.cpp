#include "dataupdate/records.h"

#include <array>
#include <functional>

#include "test_support.h"

using namespace vesk::dataupdate;

TEST(Records, EveryWrongShapeFailsWithTheRecordsMessage) {
  const std::map<std::string, std::function<void(const Json::Value&)>> readers{
      {"RemoteInfo", [](const Json::Value& v) { RemoteInfo::FromJson(v); }},
      {"DiffInfo", [](const Json::Value& v) { DiffInfo::FromJson(v); }},
      {"DiffInfos", [](const Json::Value& v) { DiffInfo::BatchFromJson(v); }},
      {"FileStatus", [](const Json::Value& v) { FileStatus::FromJson(v); }},
      {"FileStatuses", [](const Json::Value& v) { FileStatus::BatchFromJson(v); }},
      {"DatabaseStatus", [](const Json::Value& v) { DatabaseStatus::FromJson(v); }},
  };
  const std::vector<std::array<const char*, 3>> rows = {
      {"RemoteInfo", R"({"data_version": "5", "last_fetch_time": "1", "deprecated": false,
                         "download_link": ""})",
       "RemoteInfo"},
      {"RemoteInfo", R"({"data_version": "5", "last_fetch_time": 1, "download_link": ""})",
       "RemoteInfo"},
      {"DiffInfo", R"({"download_link": "u", "file_size": "10"})", "DiffInfo"},
      {"DiffInfos", R"({"3": [1]})", "DiffInfo"},
      {"FileStatuses", R"({"a": {"digest": "x"}})", "FileStatus"},
      {"DatabaseStatus", R"({"data_version": 4, "last_fetch_time": 9})", "DatabaseStatus"},
      {"DatabaseStatus",
       R"({"data_version": "4", "last_fetch_time": 9, "file_statuses": {"f": null}})",
       "FileStatus"},
  };
  for (const auto& [reader, json, message] : rows) {
    SCOPED_TRACE(std::string(reader) + " " + json);
    EXPECT_UPDATE_ERROR(readers.at(reader)(vesk::test::ParseJson(json)),
                        std::string("Invalid json object for ") + message);
  }
  // An array or a scalar where an object belongs (a batch of diffs has no members).
  for (const char* text : {"[]", "null", "7", R"("text")"}) {
    SCOPED_TRACE(text);
    for (const auto& [name, read] : readers)
      if (name != "DiffInfos")
        EXPECT_UPDATE_ERROR(read(vesk::test::ParseJson(text)), "Invalid json object for " + name);
  }
}

// The update compares statuses: every field counts, digests byte for byte.
TEST(Records, StatusEqualityComparesEveryFieldAndEveryDigestExactly) {
  const DatabaseStatus a{1, 2, {{"f", {"ab"}}}};
  EXPECT_FALSE(a != DatabaseStatus(a));
  for (const DatabaseStatus& b :
       {DatabaseStatus{1, 2, {{"f", {"AB"}}}}, DatabaseStatus{1, 3, a.file_statuses},
        DatabaseStatus{0, 2, a.file_statuses},
        DatabaseStatus{1, 2, {{"f", {"ab"}}, {"g", {"ab"}}}}})
    EXPECT_TRUE(a != b && !(a == b));
}
