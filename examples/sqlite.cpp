// A call into a library of others, bracketed: a query that takes too long is interrupted.

#include <sqlite3.h>
#include <quorvel/watch.hpp>

#include <chrono>
#include <cstdio>

using namespace std::chrono_literals;

// SQLite's result. The first watch writes the incident, the second interrupts the query after that:
// see callable.cpp. sqlite3_interrupt may be called from any thread while the database is open;
// that it is not called once the watch has ended makes it safe to close the database then.
int RunQuery(sqlite3* database, const char* name, const char* query) {
  const quorvel::Watch report(name, 1s, quorvel::kLog | quorvel::kBacktrace);
  quorvel::Watch interrupt(name, 2s, [database] { sqlite3_interrupt(database); });
  const int result = sqlite3_exec(database, query, nullptr, nullptr, nullptr);
  interrupt.End();
  if (interrupt.fired()) std::printf("%s hung: %s\n", name, sqlite3_errstr(result));
  return result;
}

int main() {
  quorvel_init();
  sqlite3* database = nullptr;
  if (sqlite3_open(":memory:", &database) != SQLITE_OK) return 1;
  const int fine = RunQuery(database, "create-table", "CREATE TABLE accounts (id INTEGER)");
  const int endless = RunQuery(database, "count-for-ever",
                               "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
                               "SELECT count(*) FROM n");
  sqlite3_close(database);
  return fine == SQLITE_OK && endless == SQLITE_INTERRUPT ? 0 : 1;
}
