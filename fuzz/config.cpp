/* A configuration file, loaded and dumped in a child process, since the parser library may end its process by itself.
   */
#include "fuzz.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>

constexpr int SANITIZER_EXIT = 77;

extern "C" const char* __asan_default_options()
{
    return "exitcode=77:detect_leaks=0";
}

/* The fuzzer's edge counters, and a copy of them that is shared with the child. */
static char* g_counters;
static size_t g_counters_len;
static char* g_counted;

#ifdef KOV_FUZZ
/* The linker leads the registration of the counters through here. */
extern "C" void __real___sanitizer_cov_8bit_counters_init(char* begin, char* end);
extern "C" void __wrap___sanitizer_cov_8bit_counters_init(char* begin, char* end)
{
    g_counters = begin;
    g_counters_len = static_cast<size_t>(end - begin);
    __real___sanitizer_cov_8bit_counters_init(begin, end);
}
#endif

/* The end of a child, also of one that the parser library ends: what it has counted must reach the parent, else the
   fuzzer is blind. */
static void leave()
{
    if (g_counters_len > 0)
        memcpy(g_counted, g_counters, g_counters_len);
    _exit(0);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    g_counted = static_cast<char*>(
        mmap(nullptr, g_counters_len + 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    MUST(g_counted != MAP_FAILED);
    fuzz_init();
    return 0;
}

/* Loads the file in the child and leaves. */
static void load(int fd)
{
    MUST(atexit(leave) == 0);
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    kova_cfg cfg{};
    init_kova_config(&cfg);
    (void)dup2(fileno(g_log->fp), STDERR_FILENO); /* refusals are said there */
    if (load_kova_config(path.c_str(), &cfg, 0) == 0) {
        (void)validate_config(&cfg);
        dump_kova_config(g_log->fp, &cfg);
    }
    free_kova_config(&cfg);
    leave();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    /* An included file would be one of this machine's. */
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.find("@include") != std::string_view::npos)
        return 0;
    const int fd = memfd_create("config", 0);
    MUST(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    const pid_t pid = fork();
    MUST(pid >= 0);
    if (pid == 0)
        load(fd);
    int status = 0;
    pid_t rc = 0;
    while ((rc = waitpid(pid, &status, 0)) < 0 && errno == EINTR) { /* the fuzzer's alarm clock */
    }
    MUST(rc == pid);
    close(fd);
    if (g_counters_len > 0)
        memcpy(g_counters, g_counted, g_counters_len);
    MUST(WIFEXITED(status) && WEXITSTATUS(status) != SANITIZER_EXIT);
    return 0;
}
