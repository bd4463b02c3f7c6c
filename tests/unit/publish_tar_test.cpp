// The archive inside every package: deterministic bytes and fixed metadata.
#include "tar_writer.h"

#include <gtest/gtest.h>

#include "test_support.h"
#include "vesk_internal/archive_ptr.h"

using namespace vesk::test;
using vesk::publish::FileMember;
using vesk::publish::TextMember;
using vesk::publish::WriteTar;

TEST(TarWriter, SameMembersAndTimeGiveTheSameBytes) {
  TempDir dir;
  WriteFile(dir / "data", std::string(100000, 'd'));
  const std::string long_name = std::string(150, 'n') + "/file";  // needs a pax header
  const std::vector<vesk::publish::TarMember> members{TextMember("index.json", "{}\n"),
                                                      FileMember(long_name, dir / "data")};
  WriteTar(dir / "one.tar.zst", members, 1700000000);
  SetAge(dir / "data", 1000);  // the source file's own time does not matter
  WriteTar(dir / "two.tar.zst", members, 1700000000);
  WriteTar(dir / "three.tar.zst", members, 1700000001);
  EXPECT_EQ(ReadFile(dir / "one.tar.zst"), ReadFile(dir / "two.tar.zst"));
  EXPECT_NE(ReadFile(dir / "one.tar.zst"), ReadFile(dir / "three.tar.zst"));
}

TEST(TarWriter, MembersKeepTheirOrderWithFixedOwnerTimeAndModes) {
  TempDir dir;
  WriteFile(dir / "tool", "#!/bin/sh\n");
  ASSERT_EQ(chmod((dir / "tool").c_str(), 0700), 0);
  WriteFile(dir / "plain", "text");
  WriteTar(dir / "a.tar.zst",
           {TextMember("z.json", "{}"), FileMember("bin/tool", dir / "tool"),
            FileMember("a/plain", dir / "plain")},
           1234567);

  vesk::ArchiveReadPtr reader(archive_read_new());
  archive_read_support_format_tar(reader.get());
  archive_read_support_filter_zstd(reader.get());
  ASSERT_EQ(archive_read_open_filename(reader.get(), (dir / "a.tar.zst").c_str(), 4096),
            ARCHIVE_OK);
  std::vector<std::string> names;
  archive_entry* e = nullptr;
  while (archive_read_next_header(reader.get(), &e) == ARCHIVE_OK) {
    names.push_back(archive_entry_pathname(e));
    EXPECT_EQ(archive_entry_uid(e), 0);
    EXPECT_EQ(archive_entry_gid(e), 0);
    const char* owner = archive_entry_uname(e);
    EXPECT_EQ(std::string(owner != nullptr ? owner : ""), "");
    EXPECT_EQ(archive_entry_mtime(e), 1234567);
    EXPECT_EQ(archive_entry_perm(e), names.back() == "bin/tool" ? 0755 : 0644) << names.back();
  }
  EXPECT_EQ(names, (std::vector<std::string>{"z.json", "bin/tool", "a/plain"}));
}
