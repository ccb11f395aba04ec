/* Reading by a table of keys. Messages name a key of the whole file's table by its path, others by their name, and the
   reader that the one or the other goes through. */
#include "config_keys.h"

#include "log.h"

#include <algorithm>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

int load_config_keys(const config_setting_t* group, config_table keys, void* record) noexcept
{
    for (const config_key& key : keys) {
        if (const int rc = key.read(group, key, record))
            return rc;
    }
    return 0;
}

int read_config_text(const config_setting_t* group, const config_key& key, char* dst) noexcept
{
    const char* const absent = key.word ? key.word : "";
    return config_setting_is_root(group) ? load_config_str(group->config, key.name, dst, key.limit, absent)
                                         : load_config_setting_str(group, key.name, dst, key.limit, absent);
}

/* A number may be 64 bits wide in the file, with an L behind it, which the library would cut without a word; a float or
   a text is another type. */
int read_config_int(const config_setting_t* group, const config_key& key, int* value) noexcept
{
    *value = key.number;
    const bool is_path = config_setting_is_root(group);
    const config_setting_t* s =
        is_path ? config_lookup(group->config, key.name) : config_setting_get_member(group, key.name);
    if (!s || (config_setting_type(s) != CONFIG_TYPE_INT && config_setting_type(s) != CONFIG_TYPE_INT64))
        return 0;
    const long long number = config_setting_get_int64(s);
    if (number < INT_MIN || number > INT_MAX) {
        const char* fn = is_path ? "load_config_int" : "load_config_setting_int"; /* as the lines have always begun */
        LOG_ERR("%s: %s value is out of range: %lld\n", fn, key.name, number);
        return -1;
    }
    *value = static_cast<int>(number);
    return 0;
}

int read_config_count(const config_setting_t* group, const config_key& key, size_t* value) noexcept
{
    int number = 0;
    if (const int rc = read_config_int(group, key, &number))
        return rc;
    *value = static_cast<size_t>(std::max(0, number));
    return 0;
}
