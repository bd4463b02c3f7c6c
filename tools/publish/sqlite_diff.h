// SQLite deltas: the SQL statements that turn one version of an SQLite database
// into the next, one statement per line, as the update engine applies them (each
// line executed in order inside one transaction).
#pragma once

#include <string>

namespace vesk::publish {

// True when the file begins with the 16-byte SQLite header "SQLite format 3\0".
bool IsSqliteFile(const std::string& path);

// Writes to `out` the statements turning `old_source` into `new_source`, made by
// sqldiff. Statements that sqldiff spreads over several lines (it breaks text at
// embedded newlines) are joined with a space. The result is then proven by
// applying it line by line to a copy of `old_source` in `scratch` and comparing
// that with `new_source` (no sqldiff difference, same schema, same user_version
// and application_id). False, with the reason in `why`, when any step fails: the
// caller then carries the file another way.
bool MakeSqliteDiff(const std::string& old_source, const std::string& new_source,
                    const std::string& out, const std::string& scratch, std::string* why);

}  // namespace vesk::publish
