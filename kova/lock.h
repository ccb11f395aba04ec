/* Order locks: empty files in a directory that cooperating agents share, taken by exclusive creation. A lock older than
   30 seconds counts as left behind. */
#pragma once

#include <ctime>

constexpr long STALE_LOCK_SEC = 30; /* the same for lock files and unfinished files */

/* 0 locked, or locking is off; EBUSY a live lock exists; -1 error (logged): no lock is held. *taken gets the lock
   file's time, which tells it from the lock of an order that takes this one over. A lock that looks older than a day
   costs a wait of 100 ms. */
[[nodiscard]] int lid_lock(const char* lid, timespec* taken) noexcept;
/* Removes the lock unless another order has taken it over; call it only for a lock taken with lid_lock() == 0. */
void lid_unlock(const char* lid, const timespec& taken) noexcept;
/* 0 no file; EBUSY the file is max_age seconds old or younger (logged); ESTALE older, and *age says how old it is in
   seconds; -1 error (logged). A link to nowhere counts by its own age. */
[[nodiscard]] int check_age(const char* path, long max_age, long* age) noexcept;
/* Removes a file that check_age has found too old. 0, or -1 (logged). */
[[nodiscard]] int expire_file(const char* path, long age) noexcept;

/* ---- offered, called in this room only ---- */

/* Judges and removes in one, with a second look after 100 ms at an age beyond a day. 0 no file, or a stale one was
   removed; EBUSY and -1 as check_age. */
[[nodiscard]] int check_and_expire(const char* path, long max_age) noexcept;
