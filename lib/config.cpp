/* Look-ups in a configuration file. A value of another type counts as absent, as the parser library's own look-ups have
   it. What a file says and this program cannot keep is refused with both limits instead: the library would cut a number
   to 32 bits, and a copy a text, without a word. */
#include "config.h"

#include "log.h"
#include "strops.h"

#include <climits>
#include <cstring>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

/* found is null for an absent value. dst keeps what it held when there is neither a value nor a default: its owner has
   set it. */
static int take_str(const char* fn, const char* key, const char* found, char* dst, size_t limit,
                    const char* deflt) noexcept
{
    if (!found) {
        if (deflt && *deflt)
            cut_text(dst, limit, deflt);
        return 0;
    }
    if (copy_text(dst, limit, found))
        return 0;
    LOG_ERR("%s: %s value is too long (%zu), max = %zu characters.\n", fn, key, strlen(found), limit);
    return -1;
}

int load_config_str(const config_t* cfg, const char* path, char* dst, size_t limit, const char* deflt) noexcept
{
    const char* text = nullptr;
    if (config_lookup_string(cfg, path, &text) != CONFIG_TRUE)
        text = nullptr;
    return take_str(__func__, path, text, dst, limit, deflt);
}

int load_config_setting_str(const config_setting_t* group, const char* key, char* dst, size_t limit,
                            const char* deflt) noexcept
{
    const char* text = nullptr;
    if (config_setting_lookup_string(group, key, &text) != CONFIG_TRUE)
        text = nullptr;
    return take_str(__func__, key, text, dst, limit, deflt);
}

/* s is null for an absent value. A number may be 64 bits wide in the file, with an L behind it; a float or a text is
   another type. */
static int take_int(const char* fn, const char* key, const config_setting_t* s, int* value, int deflt) noexcept
{
    *value = deflt;
    if (!s || (config_setting_type(s) != CONFIG_TYPE_INT && config_setting_type(s) != CONFIG_TYPE_INT64))
        return 0;
    const long long number = config_setting_get_int64(s);
    if (number < INT_MIN || number > INT_MAX) {
        LOG_ERR("%s: %s value is out of range: %lld\n", fn, key, number);
        return -1;
    }
    *value = static_cast<int>(number);
    return 0;
}

int load_config_int(const config_t* cfg, const char* path, int* value, int deflt) noexcept
{
    return take_int(__func__, path, config_lookup(cfg, path), value, deflt);
}

int load_config_setting_int(const config_setting_t* group, const char* key, int* value, int deflt) noexcept
{
    return take_int(__func__, key, config_setting_get_member(group, key), value, deflt);
}

bool config_setting_flag(const config_setting_t* group, const char* key, bool deflt) noexcept
{
    int value = 0;
    return config_setting_lookup_bool(group, key, &value) == CONFIG_TRUE ? value != 0 : deflt;
}
