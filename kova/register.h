/* Registration: what the load-balancer database is told of, and the sources that are published on this host already
   and need no download. Without a configured database nothing is registered, and nothing fails for it. */
#pragma once

#include "data.h"

/* Connects to the database, if one is configured. 0, or the failing step's code (logged). At start-up. */
[[nodiscard]] int open_register() noexcept;
void close_register() noexcept; /* safe without open_register, and after a failed one */

/* True for a source under this host's own URL prefix, any case. */
[[nodiscard]] bool is_local_url(const char* url) noexcept;
/* Registers a file that has been stored. A failure is logged and changes nothing: the file is there. */
void register_file(const dw_spec* spec) noexcept;
/* Serves an order for a local source, under the name of the function that has taken it. Waits for the database's
   answer. 0; -1 the URL is too long; the client's error (logged). */
[[nodiscard]] int register_local(const char* fn, const dw_spec* spec) noexcept;
