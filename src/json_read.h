// Reading a JSON document on the hot paths: shared instead of copied, and a
// missing file as an answer rather than an exception. A run over many
// databases looks up the configuration and the server's document several times
// for each, and copying the whole document for every lookup made its cost grow
// with the square of their number.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "dataupdate/io_utils.h"

namespace vesk::dataupdate {

// The document `io.ReadJson(path)` gives, or nullptr when the file does not
// exist; its other errors are thrown as ReadJson throws them. With the
// library's own IOUtils a kept document is shared, not copied; any other
// IOUtils is asked through its ReadJson.
std::shared_ptr<const Json::Value> ReadJsonShared(const IOUtils& io, const std::string& path);

}  // namespace vesk::dataupdate
