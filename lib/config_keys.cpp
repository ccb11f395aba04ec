/* Reading by a table of keys. Messages name a key of the whole file's table by its path, others by their name, and the
   reader that the one or the other goes through. */
#include "config_keys.h"

#include <algorithm>

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

int read_config_int(const config_setting_t* group, const config_key& key, int* value) noexcept
{
    return config_setting_is_root(group) ? load_config_int(group->config, key.name, value, key.number)
                                         : load_config_setting_int(group, key.name, value, key.number);
}

int read_config_count(const config_setting_t* group, const config_key& key, size_t* value) noexcept
{
    int number = 0;
    if (const int rc = read_config_int(group, key, &number))
        return rc;
    *value = static_cast<size_t>(std::max(0, number));
    return 0;
}
