/* The rooms of kov-checkconf. */
#pragma once

struct kova_cfg;
struct lbdb_cfg;

/* One line of what is legal but hardly meant, counted. */
[[gnu::format(printf, 1, 2)]] void warn(const char* format, ...);

/* What the loader takes for absent, or for another number, without a word (check_text.cpp). */
void check_text(const char* path);
/* One line a key to standard output: path, type, value when absent, range and meaning, separated by tabs. */
void list_keys();
/* What a configuration means beside this machine's limits, places and processes (check_host.cpp). */
void check_host(const kova_cfg& cfg);
/* The digest file, and what answers at the database's address (check_db.cpp). */
void check_database(const lbdb_cfg& db);
/* Waits so many seconds for the database to answer; at once true without one. */
[[nodiscard]] bool await_database(const lbdb_cfg& db, int seconds);
