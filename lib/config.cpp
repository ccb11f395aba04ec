/* Look-ups in a configuration file. A value of another type counts as absent, as the parser library's own look-ups have
   it. A text that this program cannot keep is refused with both lengths, where a copy would cut it without a word. */
#include "config.h"

#include "log.h"
#include "strops.h"

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

bool config_setting_flag(const config_setting_t* group, const char* key, bool deflt) noexcept
{
    int value = 0;
    return config_setting_lookup_bool(group, key, &value) == CONFIG_TRUE ? value != 0 : deflt;
}
