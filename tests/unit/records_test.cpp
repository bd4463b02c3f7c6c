#include "dataupdate/records.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <functional>
#include <stdexcept>

#include "test_support.h"

using namespace vesk::dataupdate;

namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, value)) << text;
  return value;
}

const std::map<std::string, std::function<void(const Json::Value&)>> kReaders{
    {"RemoteInfo", [](const Json::Value& v) { RemoteInfo::FromJson(v); }},
    {"DiffInfo", [](const Json::Value& v) { DiffInfo::FromJson(v); }},
    {"DiffInfos", [](const Json::Value& v) { DiffInfo::BatchFromJson(v); }},
    {"FileStatus", [](const Json::Value& v) { FileStatus::FromJson(v); }},
    {"FileStatuses", [](const Json::Value& v) { FileStatus::BatchFromJson(v); }},
    {"DatabaseStatus", [](const Json::Value& v) { DatabaseStatus::FromJson(v); }},
};

}  // namespace

TEST(Records, EveryWrongShapeFailsWithTheRecordsMessage) {
  struct Case {
    const char* reader;
    const char* json;
    const char* message;
  };
  const Case cases[] = {
      {"RemoteInfo",
       R"({"data_version": "5", "last_fetch_time": "1", "deprecated": false, "download_link": ""})",
       "RemoteInfo"},
      {"RemoteInfo", R"({"data_version": "5", "last_fetch_time": 1, "download_link": ""})",
       "RemoteInfo"},
      {"RemoteInfo", "null", "RemoteInfo"},
      {"DiffInfo", R"({"download_link": "u", "file_size": "10"})", "DiffInfo"},
      {"DiffInfo", R"({"file_size": 10})", "DiffInfo"},
      {"DiffInfos", R"({"3": {"download_link": 1}})", "DiffInfo"},
      {"DiffInfos", R"({"3": [1]})", "DiffInfo"},
      {"FileStatuses", "null", "FileStatuses"},
      {"FileStatuses", R"({"a": {"digest": "x"}})", "FileStatus"},
      {"FileStatuses", R"({"a.db": 5})", "FileStatus"},
      {"DatabaseStatus", R"({"data_version": 4, "last_fetch_time": 9})", "DatabaseStatus"},
      {"DatabaseStatus", R"({"data_version": "4"})", "DatabaseStatus"},
      {"DatabaseStatus",
       R"({"data_version": "4", "last_fetch_time": 9, "file_statuses": {"f": {}}})", "FileStatus"},
      {"DatabaseStatus",
       R"({"data_version": "4", "last_fetch_time": 9, "file_statuses": {"f": null}})",
       "FileStatus"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.reader) + " " + c.json);
    EXPECT_UPDATE_ERROR(kReaders.at(c.reader)(Parse(c.json)),
                        std::string("Invalid json object for ") + c.message);
  }
  // An array or a scalar where an object belongs (DiffInfos aside: see below).
  for (const char* text : {"[]", R"([{"data_version": "5"}])", "7", "-1.5", R"("text")", "true"}) {
    SCOPED_TRACE(text);
    for (const auto& [name, read] : kReaders) {
      if (name != "DiffInfos")
        EXPECT_UPDATE_ERROR(read(Parse(text)), "Invalid json object for " + name);
    }
  }
}

TEST(RemoteInfo, VersionTextFollowsStoiAndRoundTripsAsText) {
  Json::Value json = RemoteInfo::ToJson(RemoteInfo(0, 2, true, "http://h/p"));
  for (const auto& [text, version] : {std::pair{" 7x", 7}, {"-12", -12}}) {
    json["data_version"] = text;
    EXPECT_EQ(RemoteInfo::FromJson(json).data_version, version) << text;
  }
  json["data_version"] = "x7";
  EXPECT_THROW(RemoteInfo::FromJson(json), std::invalid_argument);
  json["data_version"] = "99999999999";
  EXPECT_THROW(RemoteInfo::FromJson(json), std::out_of_range);

  for (int version : {0, 1, -1, 2147483647, -2147483647 - 1}) {
    RemoteInfo info(version, 1700000000, version % 2 == 0,
                    "http://host/" + std::to_string(version));
    json = RemoteInfo::ToJson(info);
    EXPECT_EQ(json["data_version"], Json::Value(std::to_string(version)));
    EXPECT_TRUE(json["last_fetch_time"].isInt());
    EXPECT_EQ(json.size(), 4u);
    EXPECT_EQ(RemoteInfo::FromJson(json), info);
  }
}

TEST(DiffInfo, BatchIsKeyedNumericallyAndFirstDuplicateWins) {
  EXPECT_EQ(DiffInfo::FromJson(Parse(R"({"download_link": "u", "file_size": 10})")),
            DiffInfo("u", 10));
  auto diffs = DiffInfo::BatchFromJson(Parse(R"({
      "10": {"download_link": "ten", "file_size": 10},
      "9": {"download_link": "nine", "file_size": 9}})"));
  ASSERT_EQ(diffs.size(), 2u);
  EXPECT_EQ(diffs.begin()->first, 9);
  EXPECT_EQ(diffs.at(10), DiffInfo("ten", 10));

  // Member order is by name: "03" comes before "3", so it wins.
  auto dup = DiffInfo::BatchFromJson(Parse(R"({
      "3": {"download_link": "plain", "file_size": 1},
      "03": {"download_link": "padded", "file_size": 2}})"));
  ASSERT_EQ(dup.size(), 1u);
  EXPECT_EQ(dup.at(3).download_link, "padded");

  EXPECT_THROW(DiffInfo::BatchFromJson(Parse(R"({"x": {"download_link": "u", "file_size": 1}})")),
               std::invalid_argument);
  // The batch does not test its input: null and scalars have no members, an
  // array's entries have no names.
  for (const char* nothing : {"null", "5", "[]"})
    EXPECT_TRUE(DiffInfo::BatchFromJson(Parse(nothing)).empty()) << nothing;
  EXPECT_THROW(DiffInfo::BatchFromJson(Parse(R"([{"download_link": "u", "file_size": 1}])")),
               std::invalid_argument);
}

TEST(DatabaseStatus, FileStatusesAreReadAsTheyStandAndMissingOnesAsNone) {
  auto files = FileStatus::BatchFromJson(Parse(R"({"b": {"sha384_digest": "BB"},
                                                   "a/x": {"sha384_digest": "aa"}})"));
  EXPECT_EQ(files, (std::map<std::string, FileStatus>{{"b", {"BB"}}, {"a/x", {"aa"}}}));
  for (const char* extra :
       {"", R"(, "file_statuses": [])", R"(, "file_statuses": null)", R"(, "file_statuses": 3)"}) {
    auto status = DatabaseStatus::FromJson(
        Parse(std::string(R"({"data_version": "4", "last_fetch_time": 9)") + extra + "}"));
    EXPECT_EQ(status, (DatabaseStatus{4, 9, {}})) << extra;
  }
}

TEST(DatabaseStatus, RoundTripIncludingNegativeVersionsAndNoFiles) {
  const DatabaseStatus empty{-1, 0, {}};
  const Json::Value json = DatabaseStatus::ToJson(empty);
  EXPECT_EQ(json["file_statuses"], Json::Value(Json::objectValue));
  EXPECT_EQ(json["data_version"], Json::Value("-1"));
  for (const DatabaseStatus& status :
       {empty, DatabaseStatus{12, 1700000000, {{"/a.db", {"aa"}}, {"/dir/b", {"bb"}}}}})
    EXPECT_EQ(DatabaseStatus::FromJson(DatabaseStatus::ToJson(status)), status);
}

// The update compares the recorded status with the one it computes: every
// field counts, and digests are compared byte for byte.
TEST(DatabaseStatus, EqualityComparesEveryFieldAndEveryDigestExactly) {
  const DatabaseStatus a{1, 2, {{"f", {"ab"}}}};
  EXPECT_FALSE(a != DatabaseStatus(a));
  for (const DatabaseStatus& b :
       {DatabaseStatus{1, 2, {{"f", {"AB"}}}}, DatabaseStatus{1, 2, {{"f", {"ab"}}, {"g", {"ab"}}}},
        DatabaseStatus{1, 3, {{"f", {"ab"}}}}, DatabaseStatus{0, 2, {{"f", {"ab"}}}}})
    EXPECT_TRUE(a != b && !(a == b));
}
