/* Standard output and error without control bytes.
   The difficulty is to miss no place that prints. So the streams themselves are changed, under all that writes to them;
   what goes around the streams, as the progress bar does, quotes nothing. */
#include "plain_out.h"

#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace
{

int g_lost = 0; /* errno of what standard output did not take; written by write_plain */

/* The cookie is the descriptor. All of it, or less after an error. */
ssize_t write_plain(void* cookie, const char* text, size_t len)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    std::array<char, 4096> plain{};
    for (size_t done = 0; done < len;) {
        const size_t part = std::min(len - done, plain.size());
        std::replace_copy_if(
            text + done, text + done + part, plain.begin(),
            [](char c) { return is_control(c) && c != '\n' && c != '\t'; }, '?');
        const ssize_t n = write(fd, plain.data(), part);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (fd == STDOUT_FILENO)
                g_lost = errno;
            return static_cast<ssize_t>(done);
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(len);
}

FILE* plain_stream(int fd, int mode, FILE* otherwise)
{
    FILE* out = fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), "w",
                            {.read = nullptr, .write = write_plain, .seek = nullptr, .close = nullptr});
    if (!out)
        return otherwise;
    setvbuf(out, nullptr, mode, BUFSIZ);
    return out;
}

/* At the exit: a table that was cut by a full disk must not pass for a whole one. */
void say_what_was_lost()
{
    (void)fflush(stdout);
    if (g_lost == 0)
        return;
    fprintf(stderr, "%s: standard output: %s\n", program_invocation_short_name, strerror(g_lost));
    _exit(1);
}

} // namespace

void make_output_plain()
{
    stdout = plain_stream(STDOUT_FILENO, isatty(STDOUT_FILENO) ? _IOLBF : _IOFBF, stdout);
    stderr = plain_stream(STDERR_FILENO, _IOLBF, stderr);
    (void)atexit(say_what_was_lost);
}
