/* Reads and writes on descriptors. */
#pragma once

#include <cstddef>
#include <sys/types.h>

/* One read, repeated only on EINTR. As read(2); a failure is not logged. */
[[nodiscard]] ssize_t nread(int fd, void* buf, size_t count) noexcept;

/* One write, repeated only on EINTR. As write(2): the count may be short; a failure is not logged. */
[[nodiscard]] ssize_t nwrite(int fd, const void* buf, size_t count) noexcept;

/* 1 when data (or the end of the stream) can be read within ms milliseconds, 0 when not, -1 on failure (logged). */
[[nodiscard]] int wait_to_read(int fd, int ms) noexcept;

/* Reads a file's first cap bytes into buf. The count, or -1 (logged). */
[[nodiscard]] ssize_t read_file_buf(const char* path, char* buf, size_t cap) noexcept;
