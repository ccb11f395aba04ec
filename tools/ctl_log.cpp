/* What the agent's log tells of orders: those that a stop, a crash or a full disk cut off after their sender had his
   answer, registrations that failed, files whose time is over. The lines of level norm are enough. A line can be forged
   by whoever may place orders; it gives him no more than an order of his own would.
   The difficulty is that a log was not written for this. What an order came to is told by several lines, of which some
   name the file, some only the task, and none is there after a crash; one process's lines stand between another's. So
   all lines are read once, in order, into what is known of each process, and what is then left over is judged. A log
   has millions of lines: they are looked at where they were read, and only what is remembered is copied. */
#include "ctl_db.h"

#include "cfg.h"
#include "data.h"
#include "guard.h"
#include "lock.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <unistd.h>
#include <unordered_map>

namespace fs = std::filesystem;

namespace
{

constexpr long FIRST_UNIX_TIME = 1000000000; /* an expiry from here on is a time, not a length */
constexpr long CLOCK_SLACK_SEC = 2;          /* between a record's time and that of a process */
constexpr size_t LINE_MAX_LEN = 1 << 20;     /* no record is that long */

/* ---- a record ---- */

/* Of the line at hand: its texts are gone with the next one. */
struct record {
    std::string_view when;
    pid_t pid = 0;
    bool is_error = false;
    bool is_of_task = false; /* group T... */
    bool is_of_channel = false;
    std::string_view text;
};

/* "2026-11-22 02:00:40.574449 UTC", or seconds; 0: the log has no times. The calendar is asked once for all the records
   of a minute. */
time_t time_of(const record& r)
{
    static std::string minute; /* "2026-11-22 02:00:" and the zone, of the last record that had them */
    static std::string zone;
    static time_t begin = 0;
    constexpr size_t SECONDS_AT = 17;
    const std::string_view zone_now = r.when.substr(std::min(r.when.rfind(' '), r.when.size()));
    const int second = r.when.size() > SECONDS_AT + 2 ? parse_num<int>(r.when.substr(SECONDS_AT, 2)).value_or(-1) : -1;
    if (second >= 0 && !minute.empty() && r.when.starts_with(minute) && zone_now == zone)
        return begin + second;
    tm t{};
    std::array<char, 16> name{};
    const std::string text(r.when);
    const int n = sscanf(text.c_str(), "%d-%d-%d %d:%d:%d%*[.0-9] %15s", &t.tm_year, &t.tm_mon, // NOLINT(cert-err34-c)
                         &t.tm_mday, &t.tm_hour, &t.tm_min, &t.tm_sec, name.data());
    if (n < 6) {
        const auto seconds = parse_num<time_t>(r.when.substr(0, r.when.find_first_of(". ")));
        return seconds && *seconds >= FIRST_UNIX_TIME ? *seconds : 0; /* a smaller one counts from the boot */
    }
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    tzset();
    t.tm_isdst = strcmp(name.data(), tzname[1]) == 0 ? 1 : strcmp(name.data(), tzname[0]) == 0 ? 0 : -1;
    const bool is_utc = strcmp(name.data(), "UTC") == 0 || strcmp(name.data(), "GMT") == 0;
    const time_t tm = is_utc ? timegm(&t) : mktime(&t);
    minute = second >= 0 ? r.when.substr(0, SECONDS_AT) : "";
    zone = zone_now;
    begin = tm - second;
    return tm;
}

/* "TIME PID  (NRM)  GROUP  text". None for the rest of a record that quotes a head. */
std::optional<record> parse_record(std::string_view line)
{
    const size_t level = line.find("  (");
    if (line.empty() || line[0] < '0' || line[0] > '9' || level == std::string_view::npos || level + 9 > line.size())
        return std::nullopt;
    const size_t group = level + 8; /* "  (NRM)  " */
    const size_t text = line.find("  ", group + 1);
    const size_t pid = line.rfind(' ', level - 1);
    if (text == std::string_view::npos || pid == std::string_view::npos)
        return std::nullopt;
    const std::string_view name = line.substr(group + 1, text - group - 1);
    return record{.when = line.substr(0, pid),
                  .pid = parse_num<pid_t>(line.substr(pid + 1, level - pid - 1)).value_or(0),
                  .is_error = line.substr(level + 3, 3) == "ERR",
                  .is_of_task = name.starts_with('T'),
                  .is_of_channel = name == "uDl",
                  .text = line.substr(text + 2)};
}

/* What stands between the first `before` and the last `after`. */
std::string_view between(std::string_view text, std::string_view before, std::string_view after)
{
    const size_t from = text.find(before);
    const size_t to = text.rfind(after);
    if (from == std::string_view::npos || to == std::string_view::npos || from + before.size() > to)
        return "";
    return text.substr(from + before.size(), to - from - before.size());
}

/* ---- orders ---- */

struct order {
    std::string src;
    long expiry = 0;
    time_t tm = 0;              /* of its start; once stored, of its registration */
    bool is_answered = false;   /* 200, as far as the log tells */
    bool is_of_channel = false; /* nobody gets an answer */
    bool is_stored = false;
    const char* what = "";
};

/* By the path of the final file, for which several sources may be ordered at once; looked up with a part of a line. */
struct text_hash : std::hash<std::string_view> {
    using is_transparent = void;
};
using orders = std::unordered_multimap<std::string, order, text_hash, std::equal_to<>>;
/* The few that are printed, sorted. */
using sorted_orders = std::multimap<std::string, order, std::less<>>;

/* When the time of a stored file began, and how long it is; said again by each registration of it. */
struct end_line {
    std::string path;
    long expiry = 0;
    time_t tm = 0;
    bool is_stored = false; /* else it may be another's file that was registered */
};

struct process {
    orders running;
    bool is_quitting = false;
    std::optional<long> local_expiry; /* of the registration at hand, from level info on */
};

struct history {
    std::map<pid_t, process> processes;
    sorted_orders lost;
    std::map<std::string, order, std::less<>> unregistered; /* by destination */
    std::vector<end_line> ends;                             /* only with want_ends */
    bool want_ends = false;
    size_t unnamed_breaks = 0; /* failures after the answer whose line names no file; their ends follow */
};

std::string_view without_suffix(std::string_view path)
{
    return is_unfinished(path) ? path.substr(0, path.size() - strlen(UNFINISHED_SFX)) : path;
}

/* What a task's line says, with the path of the final file. */
struct task_line {
    std::string_view src;
    std::string_view path;
    long expiry = 0;
};

/* "TASK-START [DOW] (0x7f/idx=0) [source]->[path] length=0, expiry=60 lid=[id]", and TASK-END. None for what no order
   can be: a forged line. */
std::optional<task_line> parse_task(std::string_view text)
{
    const size_t tail = text.rfind("] length=");
    const size_t arrow = text.rfind("]->[", tail);
    const size_t src = text.find(") [");
    if (tail == std::string_view::npos || arrow == std::string_view::npos || src == std::string_view::npos ||
        src + 3 > arrow || arrow + 4 > tail)
        return std::nullopt;
    task_line t;
    t.src = text.substr(src + 3, arrow - src - 3);
    t.path = text.substr(arrow + 4, tail - arrow - 4);
    const auto expiry = parse_num<long>(between(text.substr(tail), "expiry=", " lid=["));
    if (!expiry || t.src.size() >= SPEC_URL_MAX || t.path.size() >= SPEC_PATH_MAX || !is_printable(t.src) ||
        !is_printable(t.path))
        return std::nullopt;
    t.path = without_suffix(t.path);
    t.expiry = *expiry;
    return t;
}

/* Of a map of orders; its end when there is none. */
auto find_order(auto* map, std::string_view path, std::string_view src)
{
    const auto [begin, end] = map->equal_range(path);
    const auto it = std::find_if(begin, end, [src](const auto& entry) { return entry.second.src == src; });
    return it == end ? map->end() : it;
}

/* In place of what was known of such an order before. */
void put_order(auto* map, std::string_view path, order o)
{
    if (const auto it = find_order(map, path, o.src); it != map->end())
        it->second = std::move(o);
    else
        map->emplace(path, std::move(o));
}

void lose(history* h, std::string_view path, order o, const char* what)
{
    o.what = what;
    put_order(&h->lost, path, std::move(o));
}

/* Of all orders for one file: what a line says that names no source. */
void mark(orders* running, std::string_view path, bool order::*flag, bool value)
{
    const auto [begin, end] = running->equal_range(path);
    std::for_each(begin, end, [flag, value](auto& entry) { entry.second.*flag = value; });
}

void take_start(history* h, const record& r)
{
    if (const auto t = parse_task(r.text))
        put_order(
            &h->processes[r.pid].running, t->path,
            {.src = std::string(t->src), .expiry = t->expiry, .tm = time_of(r), .is_of_channel = r.is_of_channel});
}

/* A task whose end cannot be told from a refusal that its sender was told counts as lost only when its line says so. */
void take_end(history* h, const record& r)
{
    const auto end = parse_task(r.text);
    if (!end)
        return;
    process& p = h->processes[r.pid];
    const auto it = find_order(&p.running, end->path, end->src);
    if (it == p.running.end())
        return;
    const auto [path, o] = std::move(*it);
    p.running.erase(it);
    if (o.is_stored)
        return;
    if (p.is_quitting) {
        lose(h, path, o, "cut by a stop");
    } else if (o.is_answered) {
        mark(&p.running, path, &order::is_answered, false); /* the line was about this one */
        lose(h, path, o, "broken");
    } else if (h->unnamed_breaks > 0) {
        --h->unnamed_breaks;
        lose(h, path, o, "broken");
    } else if (o.is_of_channel) {
        lose(h, path, o, "failed, and no answer tells a datagram's sender");
    }
}

void take_stored(history* h, const record& r)
{
    const std::string_view path = between(r.text, "] to [", "]");
    const auto [begin, end] = h->lost.equal_range(path);
    h->lost.erase(begin, end);
    orders& running = h->processes[r.pid].running;
    const auto it = find_order(&running, path, between(r.text, " bytes, [", "] to ["));
    if (it == running.end())
        return;
    mark(&running, path, &order::is_stored, true); /* the others have nothing to lose any more */
    if (h->want_ends)
        h->ends.push_back({it->first, it->second.expiry, time_of(r), true});
}

/* "mk_dest_file: [path] of T0001 from [former source] has stalled and is taken over from [source]": the file is the new
   order's business from here on. */
void take_takeover(history* h, const record& r)
{
    orders& running = h->processes[r.pid].running;
    const auto it = find_order(&running, without_suffix(between(r.text, "mk_dest_file: [", "] of T")),
                               between(r.text, " from [", "] has stalled"));
    if (it != running.end())
        running.erase(it);
}

/* The answer has gone out before these failures. */
void take_error(history* h, const record& r)
{
    std::string_view path;
    if (r.text.starts_with("read_fragment: [") && r.text.find("] failed, rc=") != std::string_view::npos)
        path = between(r.text, "[", "] failed, rc=");
    else if (r.text.starts_with("complete_download: rename("))
        path = between(r.text, "rename(", ", ");
    else if (r.text.starts_with("complete_download: ") || r.text.starts_with("on_read: task [") ||
             r.text.starts_with("on_write: task [") || r.text.starts_with("on_error: task ["))
        ++h->unnamed_breaks;
    mark(&h->processes[r.pid].running, without_suffix(path), &order::is_answered, true);
}

void take_unregistered(history* h, const record& r)
{
    order o;
    o.tm = time_of(r);
    const std::string dst(between(r.text, "failed to add [", "]"));
    const process& p = h->processes[r.pid];
    const auto task = p.running.find(g_set.data_dir + "/" + dst);
    if (task != p.running.end())
        o.expiry = task->second.expiry;
    else if (p.local_expiry)
        o.expiry = *p.local_expiry;
    else if (h->unregistered.contains(dst))
        return; /* tried once more, in vain */
    else
        o.what = "its expiry is not in the log: kovctl --expiry SECONDS register";
    h->unregistered[dst] = std::move(o);
}

/* Level info tells every registration before it is tried. */
void take_registration(history* h, const record& r)
{
    const std::string dst(between(r.text, "id=[", "], url=["));
    const auto expiry = parse_num<long>(r.text.substr(r.text.rfind('=') + 1));
    if (!expiry)
        return;
    h->processes[r.pid].local_expiry = *expiry;
    h->unregistered.erase(dst);
    if (h->want_ends)
        h->ends.push_back({g_set.data_dir + "/" + dst, *expiry, time_of(r), false});
}

void cut_all(history* h, process* p, const char* what)
{
    for (const auto& [path, o] : p->running) {
        if (!o.is_stored)
            lose(h, path, o, what);
    }
    p->running.clear();
    p->is_quitting = false;
}

void take_record(history* h, const record& r)
{
    if (r.text.starts_with("TASK-START ["))
        take_start(h, r);
    else if (r.text.starts_with("TASK-END ["))
        take_end(h, r);
    else if (r.text.starts_with("downloaded: "))
        take_stored(h, r);
    else if (r.text.starts_with("add_lbdb_url: failed to add ["))
        take_unregistered(h, r);
    else if (r.text.starts_with("add_lbdb_url: id=["))
        take_registration(h, r);
    else if (r.is_of_task && r.text.starts_with("mk_dest_file: [") && r.text.find("] has stalled") != r.text.npos)
        take_takeover(h, r);
    else if (r.is_error && r.is_of_task)
        take_error(h, r);
    else if (r.text.ends_with(" has been asked to quit."))
        h->processes[r.pid].is_quitting = true;
    else if (r.text.find(" STARTING. PID=") != std::string_view::npos)
        cut_all(h, &h->processes[r.pid], "cut by a crash"); /* a number that an earlier process had */
}

/* ---- the logs ---- */

/* The configured log after those that were rotated, oldest first. */
std::vector<fs::path> default_logs()
{
    const fs::path log = g_cfg.log.path;
    if (log.empty() || log.native().front() == '|')
        fail_without("log file", "name the logs, the oldest first");
    /* A rotated log is named by the second of its end, which is sorted as the number that it is. */
    std::map<unsigned long, fs::path> rotated;
    std::error_code ec;
    const fs::path dir = log.has_parent_path() ? log.parent_path() : ".";
    for (fs::directory_iterator it(dir, ec); !ec && it != fs::directory_iterator(); it.increment(ec)) {
        const std::string name = it->path().filename();
        const std::string prefix = log.filename().native() + ".";
        const auto tm = name.starts_with(prefix) ? parse_num<unsigned long>(name.substr(prefix.size())) : std::nullopt;
        if (tm)
            rotated[*tm] = it->path();
    }
    std::vector<fs::path> logs;
    logs.reserve(rotated.size() + 1);
    for (auto& [tm, path] : rotated)
        logs.push_back(std::move(path));
    logs.push_back(log);
    return logs;
}

/* Hands every record of a file to h. A line that fills the buffer is none, and is passed by: no log takes all the
   memory, whatever is in it. */
void read_log(const fs::path& path, history* h)
{
    const std::unique_ptr<FILE, releaser<fclose>> file(fopen(path.c_str(), "re"));
    if (!file)
        fail(STATUS_USAGE, path.native() + ": " + strerror(errno));
    setvbuf(file.get(), nullptr, _IONBF, 0);
    std::vector<char> buf(LINE_MAX_LEN);
    size_t kept = 0; /* bytes of a line that has not ended yet */
    bool is_too_long = false;
    for (size_t n = 1; n > 0;) { /* what n = 0 leaves in the buffer is the last line */
        n = fread(buf.data() + kept, 1, buf.size() - kept, file.get());
        const char* end = buf.data() + kept + n;
        const char* line = buf.data();
        while (line < end) {
            const auto* newline = static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(end - line)));
            if (!newline && n > 0)
                break;
            const char* line_end = newline ? newline : end; /* the last line may lack it */
            const auto r = parse_record({line, static_cast<size_t>(line_end - line)});
            if (r && !is_too_long)
                take_record(h, *r);
            is_too_long = false;
            line = newline ? newline + 1 : end;
        }
        kept = static_cast<size_t>(end - line);
        memmove(buf.data(), line, kept);
        if (kept == buf.size()) {
            is_too_long = true;
            kept = 0;
        }
    }
}

/* want_ends: also of files that were stored. */
history read_logs(std::span<char* const> args, bool want_ends)
{
    if (g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory given: name the configuration (-C) or the directory (-D)");
    std::error_code ec;
    if (const fs::path absolute = fs::absolute(g_set.data_dir, ec); !ec)
        g_set.data_dir = absolute.lexically_normal();
    const std::vector<fs::path> logs = args.empty() ? default_logs() : std::vector<fs::path>(args.begin(), args.end());
    history h;
    h.want_ends = want_ends;
    for (const fs::path& log : logs)
        read_log(log, &h);
    for (auto& [pid, p] : h.processes) {
        /* After a reboot another agent may have the number. */
        const time_t start = p.running.empty() ? 0 : start_of(pid);
        const bool is_another = std::any_of(p.running.begin(), p.running.end(), [start](const auto& entry) {
            return entry.second.tm != 0 && entry.second.tm + CLOCK_SLACK_SEC < start;
        });
        if (is_another || !is_agent(pid))
            cut_all(&h, &p, "cut by a crash");
    }
    /* What is being fetched once more, or is there after all, is not lost. */
    std::erase_if(h.lost, [&h](const auto& entry) {
        return access(entry.first.c_str(), F_OK) == 0 ||
               std::any_of(h.processes.begin(), h.processes.end(),
                           [&entry](const auto& p) { return p.second.running.contains(entry.first); });
    });
    return h;
}

/* ---- what is left of an expiry ---- */

/* Of one that began at tm. None when it is over. */
std::optional<long> left_of(long expiry, time_t tm, time_t now)
{
    if (expiry <= 0)
        return expiry;
    if (expiry >= FIRST_UNIX_TIME)
        return expiry > now ? std::optional(expiry) : std::nullopt;
    if (tm == 0)
        fail(STATUS_USAGE, "this log has no times: what is left of an expiry is not known");
    const long left = tm + expiry - now;
    return left > 0 ? std::optional(left) : std::nullopt;
}

/* The stored files whose time is over, by path, with the moment of their last registration. The last line of a file
   holds, so those of which no line is over, nearly all, need not be told apart. */
std::map<std::string, time_t> over_now(const std::vector<end_line>& ends, time_t now)
{
    std::unordered_map<std::string_view, const end_line*> last;
    for (const end_line& e : ends) {
        if (!left_of(e.expiry, e.tm, now))
            last[e.path] = nullptr;
    }
    for (const end_line& e : ends) {
        const auto it = last.find(e.path);
        if (it != last.end() && (e.is_stored || it->second))
            it->second = &e;
    }
    std::map<std::string, time_t> over;
    for (const auto& [path, e] : last) {
        if (e && !left_of(e->expiry, e->tm, now))
            over.emplace(path, e->tm);
    }
    return over;
}

std::string left_text(const std::optional<long>& left)
{
    if (!left)
        return "over";
    if (*left >= FIRST_UNIX_TIME)
        return "expiry " + std::to_string(*left);
    return *left <= 0 ? "no expiry" : std::to_string(*left) + " s left";
}

/* Relative to the data directory; none for a file that is elsewhere. */
std::optional<std::string> dst_of(const std::string& path)
{
    const std::string dir = g_set.data_dir.ends_with('/') ? g_set.data_dir : g_set.data_dir + "/";
    return path.starts_with(dir) ? std::optional(path.substr(dir.size())) : std::nullopt;
}

/* ---- the database ---- */

/* Whether a reader is still sent to this copy: somebody has registered it again. */
bool is_wanted(redisContext* redis, const std::string& dst, time_t now)
{
    const std::string url = g_set.prefix + "/" + dst;
    const reply_ptr score = ask_redis(redis, "ZSCORE %s %s", dst.c_str(), url.c_str());
    if (score->type != REDIS_REPLY_STRING && score->type != REDIS_REPLY_NIL)
        fail(STATUS_UNREGISTERED, "the database does not say until when it sends readers to " + printable(dst));
    return strtod(text_of(score.get()).c_str(), nullptr) > static_cast<double>(now);
}

} // namespace

int cmd_lost(std::span<char* const> args)
{
    const history h = read_logs(args, false);
    const time_t now = time(nullptr);
    for (const auto& [path, o] : h.lost)
        printf("%s -> %s: %s, %s\n", printable(o.src).c_str(), printable(path).c_str(), o.what,
               left_text(left_of(o.expiry, o.tm, now)).c_str());
    return h.lost.empty() ? 0 : STATUS_REFUSED;
}

/* What a crash has left is another order's for 30 seconds, and keeps this one away. */
static void await_stale(const std::string& unfinished)
{
    struct stat st {
    };
    if (stat(unfinished.c_str(), &st) != 0 || age_of(st) > STALE_LOCK_SEC ||
        all_held_files().contains({st.st_dev, st.st_ino}))
        return;
    printf("%s: waiting until it counts as left behind\n", unfinished.c_str());
    while (stat(unfinished.c_str(), &st) == 0 && age_of(st) <= STALE_LOCK_SEC)
        usleep(200000);
}

/* One after the other, each answered before the next is placed: what was many senders' is not to come as a flood. Of
   the sources of one file the first that has it is taken. */
int cmd_replay(std::span<char* const> args)
{
    const history h = read_logs(args, false);
    const time_t now = time(nullptr);
    int status = 0;
    std::string_view at; /* the file at hand */
    bool is_placed = false;
    int status_before = 0; /* a source that fails is forgotten when another one has the file */
    for (const auto& [path, o] : h.lost) {
        if (path != at) {
            at = path;
            is_placed = false;
            status_before = status;
        }
        if (is_placed)
            continue;
        const auto left = left_of(o.expiry, o.tm, now);
        const auto dst = dst_of(path);
        if (!left || !dst) {
            printf("%s: %s\n", printable(path).c_str(), left ? "not below the data directory" : "its time is over");
            continue;
        }
        await_stale(path + UNFINISHED_SFX); /* may take half a minute of what is left */
        g_set.expiry = std::to_string(left_of(o.expiry, o.tm, time(nullptr)).value_or(*left));
        const int rc = place_order(o.src, *dst);
        is_placed = rc == 0 || rc == STATUS_EXISTS;
        status = is_placed ? status_before : rc;
    }
    return status;
}

/* With what is left, not with the expiry that was ordered: an entry must not outlive what the fleet was told. */
int cmd_register_from_log(std::span<char* const> args)
{
    const history h = read_logs(args, false);
    const time_t now = time(nullptr);
    int status = 0;
    for (const auto& [dst, o] : h.unregistered) {
        const auto left = left_of(o.expiry, o.tm, now);
        if (!left || o.what[0]) {
            printf("%s: %s\n", printable(dst).c_str(), left ? o.what : "its time is over");
            status = left ? STATUS_REFUSED : status;
            continue;
        }
        g_set.expiry = std::to_string(*left);
        const int rc = register_one(dst);
        status = rc != 0 ? rc : status;
    }
    return status;
}

/* The log says what is over, the database whether somebody has prolonged it. The entry goes before the file, so that no
   reader is sent to a file that is gone. */
int cmd_expire(std::span<char* const> args)
{
    const history h = read_logs(args, true);
    const time_t now = time(nullptr);
    const std::optional<fleet_db> db = g_cfg.lbdb.port > 0 ? std::optional(open_fleet_db()) : std::nullopt;
    removal r;
    for (const auto& [path, registered] : over_now(h.ends, now)) {
        struct stat st {
        };
        const auto dst = dst_of(path);
        if (!dst || is_unfinished(path))
            continue;
        if (lstat(path.c_str(), &st) != 0) {
            r.miss(path);
            continue;
        }
        if (!S_ISREG(st.st_mode) || st.st_mtime > registered) /* changed since: another order's */
            continue;
        redisContext* redis = db ? server_of(*db, *dst) : nullptr;
        if (redis && is_wanted(redis, *dst, now))
            continue;
        if (redis && g_set.is_deleting)
            (void)ask_redis(redis, "ZREM %s %s", dst->c_str(), (g_set.prefix + "/" + *dst).c_str());
        r.take(path, st, "its time is over");
    }
    return r.status();
}
