/* Preloaded into the program: the allocation of number KOV_FAIL_ALLOC fails. At the end it says how many there were.
   What the two libraries allocate for themselves is left alone: neither survives a failure of its own (the parser
   library works once, before the agent has begun anything; the database library a few times for each registration). */
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t n, size_t size);
extern "C" void* __libc_realloc(void* p, size_t size);

static unsigned long g_count;
static unsigned long g_failing;
static bool g_is_parsing; /* the C library allocates for the parser, too */

[[gnu::constructor]] static void begin()
{
    const char* text = getenv("KOV_FAIL_ALLOC");
    g_count = 0; /* those before are the loader's */
    g_failing = text ? strtoul(text, nullptr, 10) : 0;
}

[[gnu::destructor]] static void end()
{
    fprintf(stderr, "allocations: %lu\n", g_count);
}

static bool fails(void* caller)
{
    Dl_info info{};
    const bool is_known = dladdr(caller, &info) != 0;
    if (is_known && (strstr(info.dli_fname, "/libhiredis") || strstr(info.dli_fname, "/libconfig")))
        return false;
    if (g_is_parsing || ++g_count != g_failing)
        return false;
    errno = ENOMEM;
    return true;
}

extern "C" void* malloc(size_t size)
{
    return fails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(size_t n, size_t size)
{
    return fails(__builtin_return_address(0)) ? nullptr : __libc_calloc(n, size);
}

extern "C" void* realloc(void* p, size_t size)
{
    return fails(__builtin_return_address(0)) ? nullptr : __libc_realloc(p, size);
}

/* Else its allocation would seem to be the C library's. */
extern "C" char* strdup(const char* text)
{
    const size_t size = strlen(text) + 1;
    void* copy = fails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
    return copy ? static_cast<char*>(memcpy(copy, text, size)) : nullptr;
}

extern "C" int config_read(void* config, FILE* stream)
{
    const auto next = reinterpret_cast<int (*)(void*, FILE*)>(dlsym(RTLD_NEXT, "config_read"));
    g_is_parsing = true;
    const int rc = next(config, stream);
    g_is_parsing = false;
    return rc;
}
