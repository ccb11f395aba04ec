/* Levels: their names, the words of the configuration, and the levels of modules and sections. */
#include "log.h"
#include "strops.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

int g_mod_ll[LL_MAX_MODULES];
int g_sec_ll[LL_MAX_SECTIONS];

/* Written by log_push_mlevels and log_pop_mlevels. */
static struct {
    bool is_saved;
    int levels[LL_MAX_MODULES];
} g_saved;

struct level_names {
    int level;
    const char* tag;
    const char* name; /* "ctitical" is what operators' tools know */
};

static const level_names LEVELS[] = {
    {PANIC_level, "(PNC)", "panic"},  {ERR_level, "(ERR)", "error"},       {CRIT_level, "(CRI)", "ctitical"},
    {WARN_level, "(WRN)", "warning"}, {NORM_level, "(NRM)", "normal"},     {INFO_level, "(INF)", "info"},
    {DEBUG_level, "(DBG)", "debug"},  {SECTION_level, "(SCT)", "section"},
};
static const level_names UNKNOWN_LEVEL = {0, "( ? )", "??"};

/* Levels between the named ones have none. */
static const level_names& names_of(int level) noexcept
{
    for (const level_names& l : LEVELS) {
        if (l.level == level)
            return l;
    }
    return UNKNOWN_LEVEL;
}

const char* log_level_str(int level) noexcept
{
    return names_of(level).name;
}

const char* get_level_tag(int level) noexcept
{
    return names_of(level).tag;
}

struct level_word {
    const char* word;
    int level;
};

/* What a configuration or an option may say; a level has more words there than names in the log. */
static const level_word LEVEL_WORDS[] = {
    {"err", ERR_level},      {"error", ERR_level},    {"crit", CRIT_level}, {"critical", CRIT_level},
    {"warn", WARN_level},    {"warning", WARN_level}, {"norm", NORM_level}, {"normal", NORM_level},
    {"info", INFO_level},    {"debug", DEBUG_level},  {"dbg", DEBUG_level}, {"section", SECTION_level},
    {"sect", SECTION_level},
};

int match_log_level(const char* text, int* level) noexcept
{
    for (const level_word& w : LEVEL_WORDS) {
        if (ci_equal(text, w.word)) {
            *level = w.level;
            return 0;
        }
    }
    return -1;
}

/* What is no number says nothing, like a variable that is not set. */
int read_level_env(const char* name, int deflt) noexcept
{
    const char* text = getenv(name);
    return text ? parse_num<int>(text).value_or(deflt) : deflt;
}

void log_set_modules(log_ctx* log, int level) noexcept
{
    std::fill(std::begin(g_mod_ll), std::end(g_mod_ll), level);
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx* log, int level) noexcept
{
    std::fill(std::begin(g_sec_ll), std::end(g_sec_ll), level);
    log->llst.sec_ll_set = 1;
}

/* For the toggle of debugging: the levels that the configuration has set come back with the pop. */
void log_push_mlevels() noexcept
{
    if (g_saved.is_saved)
        return;
    std::copy(std::begin(g_mod_ll), std::end(g_mod_ll), std::begin(g_saved.levels));
    g_saved.is_saved = true;
}

void log_pop_mlevels() noexcept
{
    if (!g_saved.is_saved)
        return;
    std::copy(std::begin(g_saved.levels), std::end(g_saved.levels), std::begin(g_mod_ll));
    g_saved.is_saved = false;
}
