#include "dataupdate/records.h"

#include <gtest/gtest.h>
#include <json/reader.h>

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

}  // namespace

TEST(RemoteInfo, VersionMustBeAStringAndOtherMembersTheirTypes) {
  EXPECT_UPDATE_ERROR(RemoteInfo::FromJson(Parse(
                          R"({"data_version": 5, "last_fetch_time": 1, "deprecated": false,
                              "download_link": ""})")),
                      "Invalid json object for RemoteInfo");
  EXPECT_UPDATE_ERROR(RemoteInfo::FromJson(Parse(
                          R"({"data_version": "5", "last_fetch_time": "1", "deprecated": false,
                              "download_link": ""})")),
                      "Invalid json object for RemoteInfo");
  EXPECT_UPDATE_ERROR(RemoteInfo::FromJson(Parse(
                          R"({"data_version": "5", "last_fetch_time": 1, "download_link": ""})")),
                      "Invalid json object for RemoteInfo");
  EXPECT_UPDATE_ERROR(RemoteInfo::FromJson(Json::Value()), "Invalid json object for RemoteInfo");

  RemoteInfo info = RemoteInfo::FromJson(Parse(
      R"({"data_version": "5", "last_fetch_time": 1, "deprecated": false, "download_link": ""})"));
  EXPECT_EQ(info, RemoteInfo(5, 1, false, ""));
}

TEST(RemoteInfo, VersionTextFollowsStoi) {
  auto with_version = [](const std::string& v) {
    Json::Value json = RemoteInfo::ToJson(RemoteInfo(0, 2, true, "http://h/p"));
    json["data_version"] = v;
    return json;
  };
  EXPECT_EQ(RemoteInfo::FromJson(with_version(" 7x")).data_version, 7);
  EXPECT_EQ(RemoteInfo::FromJson(with_version("-12")).data_version, -12);
  EXPECT_THROW(RemoteInfo::FromJson(with_version("x7")), std::invalid_argument);
  EXPECT_THROW(RemoteInfo::FromJson(with_version("99999999999")), std::out_of_range);
}

TEST(RemoteInfo, RoundTripKeepsEveryFieldAndWritesVersionAsText) {
  for (int version : {0, 1, -1, 2147483647, -2147483647 - 1}) {
    RemoteInfo info(version, 1700000000, version % 2 == 0,
                    "http://host/db/" + std::to_string(version));
    Json::Value json = RemoteInfo::ToJson(info);
    EXPECT_TRUE(json["data_version"].isString());
    EXPECT_EQ(json["data_version"].asString(), std::to_string(version));
    EXPECT_TRUE(json["last_fetch_time"].isInt());
    EXPECT_EQ(json.size(), 4u);
    EXPECT_EQ(RemoteInfo::FromJson(json), info);
  }
}

TEST(DiffInfo, ReadsLinkAndSizeOrRejects) {
  EXPECT_EQ(DiffInfo::FromJson(Parse(R"({"download_link": "u", "file_size": 10})")),
            DiffInfo("u", 10));
  EXPECT_UPDATE_ERROR(DiffInfo::FromJson(Parse(R"({"download_link": "u", "file_size": "10"})")),
                      "Invalid json object for DiffInfo");
  EXPECT_UPDATE_ERROR(DiffInfo::FromJson(Parse(R"({"file_size": 10})")),
                      "Invalid json object for DiffInfo");
}

TEST(DiffInfo, BatchIsKeyedNumericallyAndFirstDuplicateWins) {
  EXPECT_TRUE(DiffInfo::BatchFromJson(Json::Value()).empty());

  auto diffs = DiffInfo::BatchFromJson(Parse(R"({
      "10": {"download_link": "ten", "file_size": 10},
      "9": {"download_link": "nine", "file_size": 9}})"));
  ASSERT_EQ(diffs.size(), 2u);
  EXPECT_EQ(diffs.begin()->first, 9);
  EXPECT_EQ(diffs.rbegin()->first, 10);
  EXPECT_EQ(diffs.at(10).download_link, "ten");

  // Member order is by name: "03" comes before "3", so it wins.
  auto dup = DiffInfo::BatchFromJson(Parse(R"({
      "3": {"download_link": "plain", "file_size": 1},
      "03": {"download_link": "padded", "file_size": 2}})"));
  ASSERT_EQ(dup.size(), 1u);
  EXPECT_EQ(dup.at(3).download_link, "padded");

  EXPECT_UPDATE_ERROR(DiffInfo::BatchFromJson(Parse(R"({"3": {"download_link": 1}})")),
                      "Invalid json object for DiffInfo");
  EXPECT_THROW(DiffInfo::BatchFromJson(Parse(R"({"x": {"download_link": "u", "file_size": 1}})")),
               std::invalid_argument);
}

TEST(Records, ArraysAndScalarsWhereAnObjectBelongsFailWithTheRecordsMessage) {
  for (const char* text : {"[]", R"([{"data_version": "5"}])", "7", "-1.5", R"("text")", "true"}) {
    const Json::Value value = Parse(text);
    EXPECT_UPDATE_ERROR(RemoteInfo::FromJson(value), "Invalid json object for RemoteInfo");
    EXPECT_UPDATE_ERROR(DiffInfo::FromJson(value), "Invalid json object for DiffInfo");
    EXPECT_UPDATE_ERROR(FileStatus::FromJson(value), "Invalid json object for FileStatus");
    EXPECT_UPDATE_ERROR(FileStatus::BatchFromJson(value), "Invalid json object for FileStatuses");
    EXPECT_UPDATE_ERROR(DatabaseStatus::FromJson(value), "Invalid json object for DatabaseStatus");
  }
  // Nested: a diff entry or a file entry that is not an object.
  EXPECT_UPDATE_ERROR(DiffInfo::BatchFromJson(Parse(R"({"3": "x"})")),
                      "Invalid json object for DiffInfo");
  EXPECT_UPDATE_ERROR(DiffInfo::BatchFromJson(Parse(R"({"3": [1]})")),
                      "Invalid json object for DiffInfo");
  EXPECT_UPDATE_ERROR(FileStatus::BatchFromJson(Parse(R"({"a.db": 5})")),
                      "Invalid json object for FileStatus");
  EXPECT_UPDATE_ERROR(DatabaseStatus::FromJson(Parse(R"({"data_version": "4", "last_fetch_time": 9,
                                                         "file_statuses": {"f": null}})")),
                      "Invalid json object for FileStatus");
}

TEST(DiffInfo, BatchOfAScalarIsEmptyAndOfAnArrayFailsOnTheNamelessEntry) {
  EXPECT_TRUE(DiffInfo::BatchFromJson(Parse("5")).empty());
  EXPECT_TRUE(DiffInfo::BatchFromJson(Parse("[]")).empty());
  EXPECT_THROW(DiffInfo::BatchFromJson(Parse(R"([{"download_link": "u", "file_size": 1}])")),
               std::invalid_argument);
}

TEST(FileStatus, ComparisonIsExactAndCaseSensitive) {
  EXPECT_TRUE(FileStatus{"ab"} == FileStatus{"ab"});
  EXPECT_TRUE(FileStatus{"ab"} != FileStatus{"AB"});
  EXPECT_FALSE(FileStatus{"ab"} != FileStatus{"ab"});
}

TEST(FileStatus, BatchReadRequiresAnObjectOfValidEntries) {
  EXPECT_UPDATE_ERROR(FileStatus::BatchFromJson(Json::Value()),
                      "Invalid json object for FileStatuses");
  EXPECT_UPDATE_ERROR(FileStatus::BatchFromJson(Parse(R"({"a": {"digest": "x"}})")),
                      "Invalid json object for FileStatus");
  auto files = FileStatus::BatchFromJson(Parse(R"({"b": {"sha384_digest": "BB"},
                                                   "a/x": {"sha384_digest": "aa"}})"));
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files.at("b").sha384_digest, "BB");  // taken as it stands
  EXPECT_EQ(files.at("a/x").sha384_digest, "aa");
}

TEST(FileStatus, EmptyBatchIsWrittenAsEmptyObject) {
  Json::Value json = FileStatus::BatchToJson({});
  EXPECT_TRUE(json.isObject());
  EXPECT_EQ(json.size(), 0u);
}

TEST(DatabaseStatus, MissingOrNonObjectFileStatusesReadAsNoFiles) {
  for (const char* files :
       {"", R"(, "file_statuses": [])", R"(, "file_statuses": null)", R"(, "file_statuses": 3)"}) {
    auto status = DatabaseStatus::FromJson(
        Parse(std::string(R"({"data_version": "4", "last_fetch_time": 9)") + files + "}"));
    EXPECT_EQ(status.data_version, 4);
    EXPECT_EQ(status.last_fetch_time, 9);
    EXPECT_TRUE(status.file_statuses.empty()) << files;
  }
  EXPECT_UPDATE_ERROR(DatabaseStatus::FromJson(Parse(
                          R"({"data_version": "4", "last_fetch_time": 9,
                              "file_statuses": {"f": {}}})")),
                      "Invalid json object for FileStatus");
  EXPECT_UPDATE_ERROR(
      DatabaseStatus::FromJson(Parse(R"({"data_version": 4, "last_fetch_time": 9})")),
      "Invalid json object for DatabaseStatus");
  EXPECT_UPDATE_ERROR(DatabaseStatus::FromJson(Parse(R"({"data_version": "4"})")),
                      "Invalid json object for DatabaseStatus");
}

TEST(DatabaseStatus, RoundTripIncludingNegativeVersionsAndNoFiles) {
  DatabaseStatus empty{-1, 0, {}};
  Json::Value json = DatabaseStatus::ToJson(empty);
  EXPECT_TRUE(json["file_statuses"].isObject());
  EXPECT_EQ(json["data_version"].asString(), "-1");
  EXPECT_EQ(DatabaseStatus::FromJson(json), empty);

  DatabaseStatus full{12, 1700000000, {{"/a.db", {"aa"}}, {"/dir/b", {"bb"}}}};
  EXPECT_EQ(DatabaseStatus::FromJson(DatabaseStatus::ToJson(full)), full);
}

TEST(DatabaseStatus, EqualityComparesEveryFieldAndEveryFile) {
  DatabaseStatus a{1, 2, {{"f", {"x"}}}};
  DatabaseStatus b = a;
  EXPECT_TRUE(a == b);
  b.file_statuses["f"].sha384_digest = "y";
  EXPECT_TRUE(a != b);
  b = a;
  b.file_statuses["g"] = {"x"};
  EXPECT_TRUE(a != b);
  b = a;
  b.last_fetch_time = 3;
  EXPECT_TRUE(a != b);
}
