// The journal: durable intent records for the steps that cannot be made
// atomic (exchanging two trees without RENAME_EXCHANGE, removing an old tree,
// moving the databases to another volume). A record is written (new file,
// fsync, rename, fsync of the directory) before its step begins and removed
// after the step has ended; the next run of any command finds it and
// finishes or undoes the step before doing anything else.
//
// Records are JSON objects in "/var/lib/data_update/journal/<name>.json".
// Write and Remove throw UpdateError; Read and Names never throw.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

namespace vesk::dataupdate::journal {

std::string Directory();
void Write(const std::string& name, const Json::Value& record);
void Remove(const std::string& name);
// nullopt when the record does not exist or does not read as an object.
std::optional<Json::Value> Read(const std::string& name);
// The names of the records whose name begins with `prefix`, in name order.
std::vector<std::string> Names(const std::string& prefix);

}  // namespace vesk::dataupdate::journal
