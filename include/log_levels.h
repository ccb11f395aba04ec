/* Levels: which records are written. Each source file has a context that names its module; a record passes when its
   level is not above that module's. */
#pragma once

constexpr int MIN_level = -127; /* below every level: a record without a level tag */
constexpr int PANIC_level = -4;
constexpr int ERR_level = -3;
constexpr int CRIT_level = -2;
constexpr int WARN_level = -1;
constexpr int NORM_level = 0;
constexpr int INFO_level = 1;
constexpr int DEBUG_level = 2;
constexpr int SECTION_level = 64;

constexpr int LL_MAX_MODULES = 128;
constexpr int LL_MAX_SECTIONS = 128;
constexpr int LL_STACK_DEPTH = 8;

/* Module indices: 0 for every file but these two. */
constexpr int MOD_SYSWRAP = 2;
constexpr int MOD_FDIO = 4;

extern int g_mod_ll[LL_MAX_MODULES]; /* highest level written, by module */
extern int g_sec_ll[LL_MAX_SECTIONS];

/* One for each source file. */
struct loglevel_ctx {
    int mod;                       /* index into g_mod_ll */
    int sec;                       /* index into g_sec_ll, -1 = none */
    int sec_sp;                    /* section stack pointer */
    int sec_stack[LL_STACK_DEPTH]; /* saved sections */
};
#define LOGLEVEL_CTX(module)                                                                                           \
    {                                                                                                                  \
        (module), -1, 0, {}                                                                                            \
    }

struct log_ctx;

/* Sets the level of all modules at once; the log remembers that it was done. */
void log_set_modules(log_ctx* log, int level) noexcept;
/* Save and restore the levels of all modules. One save slot, not a stack: a second push without a pop does nothing. */
void log_push_mlevels() noexcept;
void log_pop_mlevels() noexcept;
/* Level of a word (any case). 0, or -1 for an unknown word. */
[[nodiscard]] int match_log_level(const char* text, int* level) noexcept;
[[nodiscard]] const char* log_level_str(int level) noexcept; /* "error", as the configuration's dump has it */
[[nodiscard]] const char* get_level_tag(int level) noexcept; /* "(ERR)", as each line has it */

[[nodiscard]] inline bool log_passes(const loglevel_ctx& c, int level) noexcept
{
    return c.sec < 0 ? g_mod_ll[c.mod] >= level : g_sec_ll[c.sec] <= g_mod_ll[c.mod];
}

/* ---- offered, not called here ---- */

/* The same for sections. */
void log_set_sections(log_ctx* log, int level) noexcept;
/* An environment variable's integer value; absent or not a number: deflt. */
[[nodiscard]] int read_level_env(const char* name, int deflt) noexcept;
