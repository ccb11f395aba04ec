/* A configuration file as it is written: what the loader takes for absent without a word. And the list of the keys that
   a file may hold.
   The difficulty is that the loader asks for the keys that it knows and sees no others: a misspelt key, one in a wrong
   group or of a wrong type is simply absent to it, and has its default. So the file is gone through from its own end,
   key by key, against the loader's table. */
#include "check.h"

#include "cfg.h"
#include "config.h"
#include "config_keys.h"
#include "guard.h"
#include "strops.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace
{

constexpr struct {
    unsigned type;
    const char* name;
} TYPE_NAMES[] = {
    {V_INT, "a number"}, {V_BOOL, "true or false"}, {V_STRING, "a text"}, {V_GROUP, "a group"}, {V_LIST, "a list"}};

/* In the terms of the table of keys; 0 for what no key can be, as a number with a point. */
unsigned type_of(const config_setting_t* s)
{
    switch (config_setting_type(s)) {
    case CONFIG_TYPE_INT:
    case CONFIG_TYPE_INT64:
        return V_INT;
    case CONFIG_TYPE_BOOL:
        return V_BOOL;
    case CONFIG_TYPE_STRING:
        return V_STRING;
    case CONFIG_TYPE_GROUP:
        return V_GROUP;
    case CONFIG_TYPE_LIST:
        return V_LIST;
    default:
        return 0;
    }
}

std::string type_names(unsigned types)
{
    std::string text;
    for (const auto& n : TYPE_NAMES) {
        if (types & n.type)
            text += (text.empty() ? "" : " or ") + std::string(n.name);
    }
    return text;
}

/* ---- the keys of a file ---- */

void check_keys(const config_setting_t* group, config_table keys, const std::string& path);

/* A value of the wrong type is as good as none, so nothing more is said of it. */
void check_value(const config_setting_t* s, const config_key& key)
{
    const unsigned type = type_of(s);
    const unsigned line = config_setting_source_line(s);
    const char* name = config_setting_name(s);
    if (!(type & key.types)) {
        warn("line %u: %s is not %s, and has no effect", line, name, type_names(key.types).c_str());
    } else if (type == V_INT) {
        const long long value = config_setting_get_int64(s);
        if (value < key.min && value < 0)
            warn("line %u: %s is negative", line, name);
        else if (value < key.min || value > key.max)
            warn("line %u: %s is not within %d to %d", line, name, key.min, key.max);
    } else if (type == V_GROUP) {
        check_keys(s, *key.keys, "");
    } else if (type == V_LIST) {
        for (int i = 0; i < config_setting_length(s); ++i) {
            const config_setting_t* elem = config_setting_get_elem(s, static_cast<unsigned>(i));
            if (i >= static_cast<int>(MAX_LISTENERS))
                warn("line %u: listener %d is ignored: there are four at most", config_setting_source_line(elem),
                     i + 1);
            else if (config_setting_is_group(elem))
                check_keys(elem, *key.keys, "");
        }
    }
}

/* path is what the table's names begin with for members of this group: empty but in the table of the whole file. */
void check_keys(const config_setting_t* group, config_table keys, const std::string& path)
{
    for (int i = 0; i < config_setting_length(group); ++i) {
        const config_setting_t* s = config_setting_get_elem(group, static_cast<unsigned>(i));
        const std::string name = path + config_setting_name(s);
        const std::string below = name + ".";
        const auto is_below = [&](const config_key& key) { return std::string_view(key.name).starts_with(below); };
        const auto key = std::find_if(keys.begin(), keys.end(), [&](const config_key& k) { return k.name == name; });
        if (key != keys.end())
            check_value(s, *key);
        else if (std::none_of(keys.begin(), keys.end(), is_below))
            warn("line %u: unknown key %s", config_setting_source_line(s), config_setting_name(s));
        else if (config_setting_is_group(s))
            check_keys(s, keys, below);
        else
            warn("line %u: %s is not a group, and has no effect", config_setting_source_line(s),
                 config_setting_name(s));
    }
}

/* A listener that is given a path and a port listens on the path only. */
void check_listener(const config_setting_t* s)
{
    const char* path = nullptr;
    if (config_setting_lookup_string(s, "domain_path", &path) == CONFIG_TRUE && *path &&
        (config_setting_get_member(s, "port") || config_setting_get_member(s, "ifc")))
        warn("line %u: ifc and port are ignored beside domain_path", config_setting_source_line(s));
    const char* protocol = nullptr;
    if (config_setting_lookup_string(s, "protocol", &protocol) == CONFIG_TRUE && ci_equal(protocol, "udp"))
        warn("line %u: a web listener over udp accepts nobody", config_setting_source_line(s));
}

/* The parser library cuts a number without an L at its end to 32 bits and says nothing. */
void check_numbers(const std::string& path)
{
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    config_scan scan{.rest = text};
    std::string_view word;
    for (config_word kind{}; (kind = config_next_word(&scan, &word)) != config_word::END;) {
        if (kind == config_word::INCLUDE) {
            check_numbers(std::string(word)); /* the loader has bounded the depth */
            continue;
        }
        const bool is_hex = word.starts_with("0x") || word.starts_with("0X");
        errno = 0;
        const long long value = strtoll(std::string(word).c_str(), nullptr, is_hex ? 16 : 10);
        if (errno == ERANGE || value > INT_MAX || value < INT_MIN)
            warn("%s, line %u: %.*s is beyond 32 bits, and is taken for another number", path.c_str(), scan.line,
                 static_cast<int>(word.size()), word.data());
    }
}

/* ---- the list of keys ---- */

std::string absent_value(const config_key& key)
{
    if (key.types & V_BOOL)
        return key.number ? "true" : "false";
    if (key.types == V_INT)
        return std::to_string(key.number);
    if (!key.word)
        return "required";
    return key.types & V_STRING ? "\"" + std::string(key.word) + "\"" : "none";
}

std::string range_of(const config_key& key)
{
    if ((key.types & V_INT) && key.max < INT_MAX)
        return std::to_string(key.min) + " to " + std::to_string(key.max);
    if ((key.types & V_INT) && key.min > INT_MIN)
        return "from " + std::to_string(key.min);
    return key.limit > 0 ? "at most " + std::to_string(key.limit - 1) + " characters" : "-";
}

void list_table(config_table keys, const std::string& path)
{
    for (const config_key& key : keys) {
        const std::string name = path + key.name;
        printf("%s\t%s\t%s\t%s\t%s\n", name.c_str(), type_names(key.types).c_str(), absent_value(key).c_str(),
               range_of(key).c_str(), key.text);
        if (key.keys)
            list_table(*key.keys, name + ".");
    }
}

} // namespace

void list_keys()
{
    list_table(KOVA_KEYS, "");
}

void check_text(const char* path)
{
    struct stat st {
    };
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<size_t>(st.st_size) >= CONFIG_TEXT_MAX)
        return; /* cannot be read twice, or was refused for its length */
    check_numbers(path);
    config_t file;
    config_init(&file);
    const scope_guard destroy([&file] { config_destroy(&file); });
    if (config_read_file(&file, path) != CONFIG_TRUE)
        return; /* the loader has said so */
    check_keys(config_root_setting(&file), KOVA_KEYS, "");
    const config_setting_t* web = config_lookup(&file, "kova.web_input.web");
    if (web && config_setting_is_group(web)) {
        check_listener(web);
    } else if (web && config_setting_is_list(web)) {
        for (int i = 0; i < config_setting_length(web); ++i)
            check_listener(config_setting_get_elem(web, static_cast<unsigned>(i)));
    }
}
