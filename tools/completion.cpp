/* Writes the completion of the three programs to standard output, for bash or with the argument zsh, from the tables
   that they parse their options with. The build runs it; it is not installed.
   The difficulty is the shells, which split words by rules of their own: bash takes the "=" of --option=value for a
   word, zsh a colon within a help text for the end of a field. */
#include "main.h"
#include "options.h"

#include <iterator>
#include <string_view>
#include <utility>

namespace
{

constexpr const char* HEAD =
    R"(# Bash completion for kov, kovctl and kov-checkconf. Generated from their tables of options.

# The words that completion falls on, "--option=value" being three of them.
_kov_words()
{
    cur=$2 prev=$3
    if [[ $cur == = ]]; then
        cur=
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
}

_kov_reply()
{
    mapfile -t COMPREPLY < <(compgen "$@" -- "$cur")
}
)";

/* What the value of an option is, for those where there is something to choose from. */
constexpr std::pair<std::string_view, const char*> VALUES[] = {
    {"config", "-f"},   {"logfile", "-f"},  {"pidfile", "-f"},
    {"dataroot", "-d"}, {"data-dir", "-d"}, {"level", "-W 'crit err norm warn info debug'"},
};

/* The function of one program; `rest` completes a word that is no option. */
void print_program(const char* program, std::span<const option> options, const char* rest)
{
    std::string function = std::string("_") + program;
    for (char& c : function)
        c = c == '-' ? '_' : c;
    std::string names;
    printf(R"(
%s()
{
    local cur prev
    _kov_words "$@"
    COMPREPLY=()
    case $prev in
)",
           function.c_str());
    for (const option& o : options) {
        if (o.val == 0) /* kov's --default, which is refused */
            continue;
        names.append(names.empty() ? "--" : " --").append(o.name);
        if (o.has_arg == no_argument)
            continue;
        const char* choice = nullptr;
        for (const auto& [name, value] : VALUES)
            choice = name == o.name ? value : choice;
        printf("    --%s | -%c) %s%s ;;\n", o.name, o.val, choice ? "_kov_reply " : ":", choice ? choice : "");
    }
    printf(R"(    *)
        if [[ $cur == -* ]]; then
            _kov_reply -W '%s'
        else
            %s
        fi
        ;;
    esac
}
complete -o filenames -F %s %s
)",
           names.c_str(), rest, function.c_str(), program);
}

/* Within single quotes, where _arguments takes a colon for the end of a field. */
std::string zsh_text(std::string_view text)
{
    std::string out;
    for (const char c : text)
        out += c == '\'' ? "'\\''" : c == ':' ? "\\:" : std::string(1, c);
    return out;
}

std::string zsh_choice(std::string_view option_name)
{
    for (const auto& [name, value] : VALUES) {
        if (name == option_name)
            return value[1] == 'f' ? "_files" : value[1] == 'd' ? "_files -/" : "(crit err norm warn info debug)";
    }
    return "";
}

/* What _arguments takes: '(-C --config)'{-C,--config=}'[help]:FILE:_files'. */
void print_zsh_option(const option& o, const char* arg, const char* help)
{
    if (o.val == 0 || o.val == '?') /* kov's --default, which is refused; what the shell would expand */
        return;
    const bool has_arg = o.has_arg != no_argument;
    const std::string value = has_arg ? ":" + zsh_text(arg) + ":" + zsh_choice(o.name) : "";
    printf("        '(-%c --%s)'{-%c,--%s%s}'[%s]%s' \\\n", o.val, o.name, o.val, o.name, has_arg ? "=" : "",
           zsh_text(help).c_str(), value.c_str());
}

void print_zsh_options(std::span<const tool_option> options)
{
    for (const tool_option& o : options)
        print_zsh_option(o.opt, o.arg, o.help);
}

/* One function for all three programs: zsh calls it with the program's name in $service. */
void print_zsh()
{
    puts(R"(#compdef kov kovctl kov-checkconf
# Zsh completion. Generated from their tables of options.

case $service in
kov)
    _arguments -s \)");
    for (const option* o = LONG_OPTS; o->name; ++o)
        print_zsh_option(*o, o->name, o->name);
    puts(R"(        && return 0
    ;;
kovctl)
    local -a kov_commands
    kov_commands=()");
    for (const ctl_command& c : CTL_COMMANDS)
        printf("        '%s:%s'\n", c.name, zsh_text(c.help).c_str());
    puts(R"(    )
    _arguments -s \)");
    print_zsh_options(CTL_OPTIONS);
    puts(R"(        '1:command:{ _describe command kov_commands }' '*:argument:_files' && return 0
    ;;
kov-checkconf)
    _arguments -s \)");
    print_zsh_options(CHECKCONF_OPTIONS);
    puts(R"(        '1:configuration:_files' && return 0
    ;;
esac)");
}

/* One function a program, behind two that they share. */
void print_bash()
{
    fputs(HEAD, stdout);
    size_t count = 0;
    while (LONG_OPTS[count].name)
        ++count;
    print_program("kov", {LONG_OPTS, count}, ":");
    const auto ctl = long_options(CTL_OPTIONS);
    std::string commands = "_kov_reply -W '";
    for (const ctl_command& c : CTL_COMMANDS)
        commands.append(c.name).append(&c == std::end(CTL_COMMANDS) - 1 ? "'" : " ");
    print_program("kovctl", std::span(ctl).first(std::size(CTL_OPTIONS)), commands.c_str());
    const auto checkconf = long_options(CHECKCONF_OPTIONS);
    print_program("kov-checkconf", std::span(checkconf).first(std::size(CHECKCONF_OPTIONS)), "_kov_reply -f");
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc == 2 && std::string_view(argv[1]) == "zsh")
        print_zsh();
    else
        print_bash();
    return ferror(stdout) ? 1 : 0;
}
