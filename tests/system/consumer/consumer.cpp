// A program built only against the installed tree.
#include <dataupdate/dataupdate.h>
#include <dataupdate/io_utils.h>
#include <dataupdate/records.h>

#include <iostream>
#include <sstream>

int main() {
  using namespace vesk::dataupdate;
  DatabaseStatus status{7, 42, {{"a/b.db", FileStatus{"00"}}}};
  DatabaseStatus back = DatabaseStatus::FromJson(DatabaseStatus::ToJson(status));
  std::istringstream empty;
  std::cout << FlatFileName("a/b.db") << " " << back.data_version << " "
            << GetSha384(empty).substr(0, 8) << "\n";
  // The whole interface links from the installed library alone.
  Checker checker(nullptr);
  static_cast<void>(checker);
  return back == status ? 0 : 1;
}
