#include "sqlite_diff.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <SQLiteCpp/SQLiteCpp.h>
#include <vector>

#include "file_io.h"
#include "process.h"
#include "publish_error.h"
#include "vesk_internal/unique_fd.h"

namespace vesk::publish {
namespace {

const std::string kSqliteHeader("SQLite format 3\0", 16);

// Rewrites sqldiff's output so that every statement is on one line.
bool JoinStatements(const std::string& raw, const std::string& out, std::string* why) {
  UniqueFd fd(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd)
    throw PublishError("cannot create " + out);
  LineReader lines(raw);
  std::string line, statement;
  while (lines.Next(&line)) {
    if (statement.empty() && line.empty())
      continue;
    statement += statement.empty() ? line : " " + line;
    if (sqlite3_complete(statement.c_str())) {
      statement += '\n';
      WriteAll(fd.get(), statement.data(), statement.size(), out);
      statement.clear();
    }
  }
  if (!statement.empty()) {
    *why = "sqldiff ended inside a statement";
    return false;
  }
  if (close(fd.release()) != 0)
    throw PublishError("cannot write " + out);
  return true;
}

// Applies `diff` to `db` exactly as the update engine does.
void Apply(const std::string& db, const std::string& diff) {
  SQLite::Database database(db, SQLite::OPEN_READWRITE);
  SQLite::Transaction transaction(database);
  LineReader lines(diff);
  std::string line;
  while (lines.Next(&line))
    database.exec(line);
  transaction.commit();
}

std::vector<std::string> Describe(const std::string& db) {
  SQLite::Database database(db, SQLite::OPEN_READONLY);
  std::vector<std::string> facts;
  SQLite::Statement schema(database,
                           "SELECT type, name, tbl_name, ifnull(sql, '') FROM sqlite_master "
                           "ORDER BY type, name");
  while (schema.executeStep()) {
    facts.push_back(schema.getColumn(0).getString() + "|" + schema.getColumn(1).getString() + "|" +
                    schema.getColumn(2).getString() + "|" + schema.getColumn(3).getString());
  }
  facts.push_back("user_version=" + database.execAndGet("PRAGMA user_version").getString());
  facts.push_back("application_id=" + database.execAndGet("PRAGMA application_id").getString());
  return facts;
}

}  // namespace

bool IsSqliteFile(const std::string& path) {
  return FileStartsWith(path, kSqliteHeader);
}

bool MakeSqliteDiff(const std::string& old_source, const std::string& new_source,
                    const std::string& out, const std::string& scratch, std::string* why) {
  // Work on copies: opening a database, even to read it, may leave journal, -wal
  // or -shm files beside it, and the source tree must stay as it is.
  const std::string old_db = scratch + "/old.db", new_db = scratch + "/new.db";
  CopyFileContents(old_source, old_db);
  CopyFileContents(new_source, new_db);
  const std::string raw = scratch + "/sqldiff.out";
  if (int rc = RunProgram({"sqldiff", old_db, new_db}, raw, true); rc != 0) {
    *why = "sqldiff failed (status " + std::to_string(rc) + ")";
    return false;
  }
  if (!JoinStatements(raw, out, why))
    return false;

  const std::string trial = scratch + "/trial.db";
  CopyFileContents(old_db, trial);
  try {
    Apply(trial, out);
    if (Describe(trial) != Describe(new_db)) {
      *why = "the result's schema or header values differ";
      return false;
    }
  } catch (const SQLite::Exception& e) {
    *why = std::string("the statements do not apply: ") + e.what();
    return false;
  }
  const std::string residue = scratch + "/residue.out";
  if (RunProgram({"sqldiff", trial, new_db}, residue, true) != 0 || FileSize(residue) != 0) {
    *why = "the result still differs from the new version";
    return false;
  }
  return true;
}

}  // namespace vesk::publish
