/* The options of the companion programs: one table each, for parsing, --help and completion. */
#pragma once

#include <array>
#include <cstdio>
#include <getopt.h>
#include <span>
#include <string>
#include <string_view>

struct tool_option {
    option opt;
    const char* arg; /* what --help calls its argument, null when it takes none */
    const char* help;
};

inline constexpr tool_option CHECKCONF_OPTIONS[] = {
    {{"strict", no_argument, nullptr, 's'}, nullptr, "warnings give status 2"},
    {{"wait", required_argument, nullptr, 'w'},
     "SECONDS",
     "for the file's database to answer; refuse when it does not"},
    {{"keys", no_argument, nullptr, 'k'},
     nullptr,
     "list every key: path, type, value when absent, range, meaning; with tabs between"},
    {{"help", no_argument, nullptr, 'h'}, nullptr, "this text"},
};

inline constexpr tool_option CTL_OPTIONS[] = {
    {{"config", required_argument, nullptr, 'C'}, "FILE", "the agent's configuration, for what the options do not say"},
    {{"agent", required_argument, nullptr, 'a'}, "HOST:PORT", "its web listener"},
    {{"udp", required_argument, nullptr, 'u'}, "HOST:PORT", "its channel"},
    {{"data-dir", required_argument, nullptr, 'D'}, "DIR", "its data directory"},
    {{"pid", required_argument, nullptr, 'p'}, "PID", "its process"},
    {{"expiry", required_argument, nullptr, 'e'}, "SECONDS", "of an order"},
    {{"wait", no_argument, nullptr, 'w'}, nullptr, "until the file is stored"},
    {{"timeout", required_argument, nullptr, 't'},
     "SECONDS",
     "of a wait: ping 2, ready 30, drain and an answer 60, --wait 600; what fleet calls soon: 3600"},
    {{"json", no_argument, nullptr, 'j'}, nullptr, "status as one JSON object"},
    {{"delete", no_argument, nullptr, 'd'}, nullptr, "verify, sweep and expire remove what they find"},
    {{"all", no_argument, nullptr, 'A'}, nullptr, "verify looks into files of after the last boot, too"},
    {{"from-log", no_argument, nullptr, 'f'}, nullptr, "of register: what the logs tell of failed registrations"},
    {{"help", no_argument, nullptr, 'h'}, nullptr, "this text"},
};

/* A command of kovctl. */
struct ctl_command {
    const char* name;
    const char* args;
    size_t min_args;
    size_t max_args;
    const char* help;
};

/* Their places in the table below. */
enum ctl_cmd {
    CTL_PING,
    CTL_READY,
    CTL_GET,
    CTL_SEND,
    CTL_STATUS,
    CTL_METRICS,
    CTL_DRAIN,
    CTL_VERIFY,
    CTL_SWEEP,
    CTL_REGISTER,
    CTL_LOST,
    CTL_REPLAY,
    CTL_EXPIRE,
    CTL_FLEET,
};

inline constexpr ctl_command CTL_COMMANDS[] = {
    {"ping", "", 0, 0, "asks whether the agent lives"},
    {"ready", "", 0, 0, "waits until the agent answers"},
    {"get", "SRC DST", 2, 2, "orders a download over HTTP; --wait until it is stored"},
    {"send", "LID SRC DST EXPIRY", 4, 4, "the same order as a datagram"},
    {"status", "", 0, 0, "listeners, database, clients, downloads, silent sources, descriptors, unfinished files"},
    {"metrics", "", 0, 0, "the same as OpenMetrics text"},
    {"drain", "", 0, 0, "waits before a stop until the downloads have ended; keep new orders away meanwhile"},
    {"verify", "", 0, 0, "final files with blocks missing or never written, as a power cut leaves them"},
    {"sweep", "", 0, 0, "unfinished files and locks older than 30 s that nobody holds"},
    {"register", "DST... | LOG...", 0, 10000, "registers files on disk again after the database lost them"},
    {"lost", "[LOG...]", 0, 10000, "orders that a stop, a crash or a full disk has cut off after their answer"},
    {"replay", "[LOG...]", 0, 10000, "places them again, with what is left of their expiry"},
    {"expire", "[LOG...]", 0, 10000, "stored files whose expiry is over, and their entries in the database"},
    {"fleet", "", 0, 0, "from the database: hosts that live, files of each, what ends within --timeout"},
};

/* getopt's tables of `options`: the long ones with their end, the letters. */
template <size_t N>
constexpr std::array<option, N + 1> long_options(const tool_option (&options)[N])
{
    std::array<option, N + 1> table{};
    for (size_t i = 0; i < N; ++i)
        table[i] = options[i].opt;
    return table;
}

inline std::string option_letters(std::span<const tool_option> options)
{
    std::string letters;
    for (const tool_option& o : options)
        letters.append(1, static_cast<char>(o.opt.val)).append(o.arg ? ":" : "");
    return letters;
}

/* Words and a line end, at most 79 columns wide; `column` have been written of the first line, and are left empty in
   the others. */
inline void print_wrapped(FILE* out, int column, std::string_view text)
{
    constexpr size_t COLUMNS = 79;
    const auto margin = static_cast<size_t>(column);
    size_t used = margin;
    for (size_t from = 0; from < text.size();) {
        const std::string word(text.substr(from, text.find(' ', from) - from));
        if (used > margin && used + 1 + word.size() > COLUMNS) {
            fprintf(out, "\n%*s", column, "");
            used = margin;
        }
        used += static_cast<size_t>(fprintf(out, "%s%s", used > margin ? " " : "", word.c_str()));
        from += word.size() + 1;
    }
    fputs("\n", out);
}

inline void print_options(FILE* out, std::span<const tool_option> options)
{
    for (const tool_option& o : options) {
        const std::string name = std::string(o.opt.name) + (o.arg ? std::string(" ") + o.arg : "");
        const int column = fprintf(out, "  -%c, --%-18s ", o.opt.val, name.c_str());
        print_wrapped(out, column, o.help);
    }
}
