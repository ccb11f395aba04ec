/* Writes that never hold the process up, to whatever is behind a descriptor. */
#pragma once

#include "log.h"

#include <cstdio>
#include <string_view>

/* Makes out write to what is behind fd, through a non-blocking description of its own where fd's may be shared. fd < 0:
   to nothing. fd stays the caller's and must outlive the attachment. */
void out_attach(log_out* out, int fd) noexcept;
/* Closes what out_attach has opened; the next out_line looks again. */
void out_detach(log_out* out) noexcept;

/* Writes text in one piece if it can. 0, EAGAIN: its reader does not take it now, or the failed write's errno. What was
   not taken is dropped; when a part was, the next text begins on a line of its own. */
int out_put(log_out* out, std::string_view text) noexcept;

/* The same for what is behind a stream, which is looked at when its first text comes. */
void out_line(FILE* fp, log_out* out, std::string_view text) noexcept;

/* A non-blocking, close-on-exec connection to a Unix socket, of datagrams if it takes them. Its descriptor, or -1. */
[[nodiscard]] int connect_unix(const char* path, bool* is_stream) noexcept;

/* From now on descriptor 2 does not block, if it can be opened anew. For a process that is about to end. */
void unblock_stderr() noexcept;
