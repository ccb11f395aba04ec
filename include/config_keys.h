/* Tables of configuration keys: one row says all about a key. The loader reads by it, kov-checkconf judges and lists by
   it, and the manual page's lists are made of that listing. */
#pragma once

#include "config.h"

#include <climits>
#include <cstddef>
#include <libconfig.h>
#include <span>

/* Types of a value, as a set. */
enum : unsigned { V_INT = 1, V_BOOL = 2, V_STRING = 4, V_GROUP = 8, V_LIST = 16 };

struct config_key;
using config_table = std::span<const config_key>;
/* Reads the key's value into the record that its table is for. 0, or non-zero (logged). */
using config_read_fn = int (*)(const config_setting_t* group, const config_key& key, void* record) noexcept;

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): in the order in which a row is read
struct config_key {
    const char* name; /* member of a group; in a table of the whole file the path from its root */
    unsigned types;   /* V_*: a value of another type counts as absent */
    config_read_fn read;
    const char* text;                   /* what it does, in its unit: the manual's words */
    const char* word = nullptr;         /* V_STRING, groups: stands for an absent value; null: there must be one */
    int number = 0;                     /* V_INT, V_BOOL: stands for an absent value */
    int min = 0;                        /* V_INT: the checker warns of what is below, */
    int max = INT_MAX;                  /* or above; the loader takes every int, unless read refuses it */
    size_t limit = 0;                   /* V_STRING: a value is shorter; 0 where only certain words will do */
    const config_table* keys = nullptr; /* V_GROUP, V_LIST: of the group, or of each group of the list */
};

/* Reads the table's keys one after the other, and stops at the first that fails. Its result, or 0. */
[[nodiscard]] int load_config_keys(const config_setting_t* group, config_table keys, void* record) noexcept;

/* For a row's own reader: the value, or what stands for an absent one. dst holds key.limit characters, and is left as
   it is when that one is empty. 0, or -1 (logged). */
[[nodiscard]] int read_config_text(const config_setting_t* group, const config_key& key, char* dst) noexcept;
[[nodiscard]] int read_config_int(const config_setting_t* group, const config_key& key, int* value) noexcept;
/* A negative number counts as 0. */
[[nodiscard]] int read_config_count(const config_setting_t* group, const config_key& key, size_t* value) noexcept;

/* ---- rows whose value goes into a field as it is, as in key_text<&log_cfg::path>(...) ---- */

template <class R, class F>
constexpr F& field_at(void* record, F R::*field) noexcept
{
    return static_cast<R*>(record)->*field;
}

/* Into a char array, whose last place stays free. */
template <auto field>
constexpr config_key key_text(const char* name, const char* word, const char* text,
                              size_t limit = sizeof(field_at(nullptr, field)) - 1) noexcept
{
    return {.name = name,
            .types = V_STRING,
            .read = [](const config_setting_t* group, const config_key& key,
                       void* record) noexcept { return read_config_text(group, key, field_at(record, field)); },
            .text = text,
            .word = word,
            .limit = limit};
}

template <auto field>
constexpr config_key key_int(const char* name, int number, int min, int max, const char* text) noexcept
{
    return {.name = name,
            .types = V_INT,
            .read = [](const config_setting_t* group, const config_key& key,
                       void* record) noexcept { return read_config_int(group, key, &field_at(record, field)); },
            .text = text,
            .number = number,
            .min = min,
            .max = max};
}

/* Into a size_t. */
template <auto field>
constexpr config_key key_count(const char* name, int number, const char* text) noexcept
{
    return {.name = name,
            .types = V_INT,
            .read = [](const config_setting_t* group, const config_key& key,
                       void* record) noexcept { return read_config_count(group, key, &field_at(record, field)); },
            .text = text,
            .number = number};
}

template <auto field>
constexpr config_key key_flag(const char* name, bool is_on, const char* text) noexcept
{
    return {.name = name,
            .types = V_BOOL,
            .read =
                [](const config_setting_t* group, const config_key& key, void* record) noexcept {
                    bool& flag = field_at(record, field);
                    flag = config_setting_flag(group, key.name, key.number != 0);
                    return 0;
                },
            .text = text,
            .number = is_on};
}
