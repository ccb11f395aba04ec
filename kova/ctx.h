/* The download context: the one place that knows every room of the daemon, because it builds and destroys them in their
   order. Everybody else finds the record itself, g_ctx, in data.h. */
#pragma once

/* Builds listeners, channel, task table and database connection; nothing is watched yet. Not twice.
   0, or the failing step's code (logged, unless a quit signal has cut it short); everything is torn down again then. */
[[nodiscard]] int init_kova_ctx() noexcept;
/* Opens the listeners and lets the loop watch them and the channel. After rqs_init and init_kova_ctx.
   0, or the failing step's code (logged); destroy_kova_ctx releases what was started. */
[[nodiscard]] int start_kova_ctx() noexcept;
/* Safe after a failed init or start, and without one. */
void destroy_kova_ctx() noexcept;
