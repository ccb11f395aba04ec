/* The text of a configuration file before the parser library sees it. The library follows an include directive by
   itself and ends the process when the file behind it opens but cannot be read, as a directory does; so every
   directive is found first, by the library's own rules. */
#include "config.h"

#include "guard.h"
#include "log.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sys/stat.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t INCLUDE_PATH_MAX = 1024;
constexpr int INCLUDE_DEPTH_MAX = 10; /* the library's own */
constexpr std::string_view BLANKS = " \t";
constexpr std::string_view WORD = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ._*-+";
constexpr std::string_view DIRECTIVE = "@include";
constexpr char CANNOT_OPEN[] = "cannot open include file"; /* the library's words for a missing one */

/* ---- words ---- */

static void skip(config_scan* s, size_t n) noexcept
{
    for (const char c : s->rest.substr(0, n))
        s->line += c == '\n';
    s->rest.remove_prefix(std::min(n, s->rest.size()));
}

/* Length up to and including end, which a backslash takes its meaning in a text; all of rest when it does not come. */
static size_t length_to(std::string_view rest, size_t from, std::string_view end, bool is_text) noexcept
{
    for (size_t i = from; i < rest.size(); ++i) {
        if (is_text && rest[i] == '\\')
            ++i;
        else if (rest.substr(i).starts_with(end))
            return i + end.size();
    }
    return rest.size();
}

static size_t blanks_at(std::string_view text, size_t at) noexcept
{
    const size_t end = text.find_first_not_of(BLANKS, at);
    return (end == std::string_view::npos ? text.size() : end) - at;
}

/* Takes a directive at the start of a line: @include, blanks, a text in quotes. */
static bool take_include(config_scan* s, std::string_view* text) noexcept
{
    size_t at = blanks_at(s->rest, 0);
    if (!s->rest.substr(at).starts_with(DIRECTIVE))
        return false;
    at += DIRECTIVE.size();
    const size_t gap = blanks_at(s->rest, at);
    at += gap;
    if (gap == 0 || at >= s->rest.size() || s->rest[at] != '"')
        return false;
    const size_t end = length_to(s->rest, at + 1, "\"", true);
    *text = s->rest.substr(at + 1, end - at - 1);
    if (text->ends_with('"'))
        text->remove_suffix(1);
    skip(s, end);
    return true;
}

/* A whole number without the L that makes it a long one. */
static bool is_plain_number(std::string_view word) noexcept
{
    if (word.starts_with("0x") || word.starts_with("0X")) {
        word.remove_prefix(2);
        return !word.empty() && word.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
    }
    if (word.starts_with('-') || word.starts_with('+'))
        word.remove_prefix(1);
    return !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
}

/* Texts and comments are passed over, or what looks like a directive in them would count. */
config_word config_next_word(config_scan* s, std::string_view* text) noexcept
{
    while (!s->rest.empty()) {
        const bool was_line_start = s->is_line_start;
        s->is_line_start = s->rest[0] == '\n';
        if (was_line_start && take_include(s, text))
            return config_word::INCLUDE;
        if (s->rest[0] == '"') {
            skip(s, length_to(s->rest, 1, "\"", true));
        } else if (s->rest[0] == '#' || s->rest.starts_with("//")) {
            skip(s, std::min(s->rest.find('\n'), s->rest.size()));
        } else if (s->rest.starts_with("/*")) {
            skip(s, length_to(s->rest, 2, "*/", false));
        } else if (const size_t n = std::min(s->rest.find_first_not_of(WORD), s->rest.size())) {
            *text = s->rest.substr(0, n);
            skip(s, n);
            if (is_plain_number(*text))
                return config_word::NUMBER;
        } else {
            skip(s, 1);
        }
    }
    return config_word::END;
}

/* ---- files ---- */

struct file_text {
    std::unique_ptr<char, releaser<free>> buf;
    size_t len;
};

/* False: it cannot be read, or is longer than any configuration. */
static bool read_text(FILE* fp, file_text* text) noexcept
{
    text->buf.reset(static_cast<char*>(malloc(CONFIG_TEXT_MAX)));
    if (!text->buf)
        return false;
    text->len = fread(text->buf.get(), 1, CONFIG_TEXT_MAX, fp);
    return !ferror(fp) && text->len < CONFIG_TEXT_MAX;
}

/* In the words and the form of the parser library's own errors, so that there is one text to look for. */
static int refuse(const char* path, unsigned line, const char* why) noexcept
{
    LOG_ERR("Error reading/parsing config file [%s]: line %u: %s\n", path, line, why);
    return -1;
}

/* The path with its escapes taken away. */
static bool unescape(std::string_view text, std::array<char, INCLUDE_PATH_MAX>* path) noexcept
{
    size_t n = 0;
    for (size_t i = 0; i < text.size() && n < path->size() - 1; ++i) {
        if (text[i] == '\\' && i + 1 < text.size())
            ++i;
        (*path)[n++] = text[i];
    }
    (*path)[n] = '\0';
    return n < path->size() - 1;
}

/* The files behind the directives of text, and what they include. Only a regular file can be read here and again by the
   library. */
static int check_includes(const char* path, std::string_view text, int depth) noexcept
{
    config_scan scan{.rest = text};
    std::string_view name;
    for (config_word kind{}; (kind = config_next_word(&scan, &name)) != config_word::END;) {
        if (kind != config_word::INCLUDE)
            continue;
        if (depth >= INCLUDE_DEPTH_MAX)
            return refuse(path, scan.line, "include file nesting too deep");
        std::array<char, INCLUDE_PATH_MAX> file{};
        struct stat st {
        };
        if (!unescape(name, &file) || stat(file.data(), &st) != 0 || !S_ISREG(st.st_mode))
            return refuse(path, scan.line, CANNOT_OPEN);
        const std::unique_ptr<FILE, releaser<fclose>> fp(fopen(file.data(), "re"));
        file_text included{};
        if (!fp || !read_text(fp.get(), &included))
            return refuse(path, scan.line, CANNOT_OPEN);
        if (const int rc = check_includes(file.data(), {included.buf.get(), included.len}, depth + 1))
            return rc;
    }
    return 0;
}

/* The text is read once and parsed from memory: a file that changes in between is not two files. */
int parse_config(config_t* cfg, const char* path, FILE* fp) noexcept
{
    file_text text{};
    if (!read_text(fp, &text))
        return refuse(path, 0, "cannot be read");
    if (const int rc = check_includes(path, {text.buf.get(), text.len}, 0))
        return rc;
    if (text.len == 0)
        text.buf.get()[text.len++] = '\n'; /* a stream over nothing is not to be had everywhere */
    const std::unique_ptr<FILE, releaser<fclose>> again(fmemopen(text.buf.get(), text.len, "r"));
    if (!again)
        return refuse(path, 0, "out of memory");
    if (config_read(cfg, again.get()) == CONFIG_TRUE)
        return 0;
    LOG_ERR("Error reading/parsing config file [%s]: line %d: %s\n", path, config_error_line(cfg),
            config_error_text(cfg));
    return -1;
}
