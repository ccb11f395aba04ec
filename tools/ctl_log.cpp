/* What the agent's log tells of orders: those that a stop, a crash or a full disk cut off after their sender had his
   answer, registrations that failed, files whose time is over. The lines of level norm are enough. A line can be forged
   by whoever may place orders; it gives him no more than an order of his own would. */
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
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

constexpr long FIRST_UNIX_TIME = 1000000000; /* an expiry from here on is a time, not a length */
constexpr long CLOCK_SLACK_SEC = 2;          /* between a record's time and that of a process */
constexpr size_t LINE_MAX_LEN = 65536;

/* ---- a record ---- */

struct record {
    std::string_view when;
    pid_t pid = 0;
    bool is_error = false;
    bool is_of_task = false; /* group T... */
    bool is_of_channel = false;
    std::string_view text;
};

/* "2026-11-22 02:00:40.574449 UTC", or seconds; 0: the log has no times. */
time_t time_of(const record& r)
{
    const std::string text(r.when);
    tm t{};
    std::array<char, 16> zone{};
    const int n = sscanf(text.c_str(), "%d-%d-%d %d:%d:%d%*[.0-9] %15s", &t.tm_year, &t.tm_mon, // NOLINT(cert-err34-c)
                         &t.tm_mday, &t.tm_hour, &t.tm_min, &t.tm_sec, zone.data());
    if (n < 6) {
        const auto seconds = parse_num<time_t>(text.substr(0, text.find_first_of(". ")));
        return seconds && *seconds >= FIRST_UNIX_TIME ? *seconds : 0; /* a smaller one counts from the boot */
    }
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    const std::string_view name = zone.data();
    if (name == "UTC" || name == "GMT")
        return timegm(&t);
    tzset();
    t.tm_isdst = name == tzname[1] ? 1 : name == tzname[0] ? 0 : -1;
    return mktime(&t);
}

/* "TIME PID  (NRM)  GROUP  text". None for the rest of a record that quotes a head. */
std::optional<record> parse_record(const std::string& line)
{
    const size_t level = line.find("  (");
    if (line.empty() || line[0] < '0' || line[0] > '9' || level == std::string::npos || level + 9 > line.size())
        return std::nullopt;
    const size_t group = level + 8; /* "  (NRM)  " */
    const size_t text = line.find("  ", group + 1);
    const size_t pid = line.rfind(' ', level - 1);
    if (text == std::string::npos || pid == std::string::npos)
        return std::nullopt;
    record r;
    r.pid = parse_num<pid_t>(std::string_view(line).substr(pid + 1, level - pid - 1)).value_or(0);
    r.when = std::string_view(line).substr(0, pid);
    r.is_error = line.compare(level + 3, 3, "ERR") == 0;
    const std::string_view name = std::string_view(line).substr(group + 1, text - group - 1);
    r.is_of_task = name.starts_with('T');
    r.is_of_channel = name == "uDl";
    r.text = std::string_view(line).substr(text + 2);
    return r;
}

/* What stands between the first `before` and the last `after`. */
std::string between(std::string_view text, std::string_view before, std::string_view after)
{
    const size_t from = text.find(before);
    const size_t to = text.rfind(after);
    if (from == std::string_view::npos || to == std::string_view::npos || from + before.size() > to)
        return "";
    return std::string(text.substr(from + before.size(), to - from - before.size()));
}

/* ---- orders ---- */

struct order {
    std::string src;
    std::string path; /* of the final file */
    long expiry = 0;
    time_t tm = 0;              /* of its start; once stored, of its registration */
    bool is_answered = false;   /* 200, as far as the log tells */
    bool is_of_channel = false; /* nobody gets an answer */
    bool is_stored = false;
    const char* what = "";
};

struct history {
    std::map<std::pair<pid_t, std::string>, order> running; /* by process and final path */
    std::map<std::string, order> lost;                      /* by final path */
    std::map<std::string, order> unregistered;              /* by destination */
    std::map<std::string, order> stored;                    /* by final path; only with want_stored */
    bool want_stored = false;
    std::set<pid_t> quitting;
    size_t unnamed_breaks = 0;          /* failures after the answer whose line names no file; their ends follow */
    std::map<pid_t, long> local_expiry; /* of the registration at hand, from level info on */
};

std::string without_suffix(std::string path)
{
    if (std::string_view(path).ends_with(UNFINISHED_SFX))
        path.resize(path.size() - strlen(UNFINISHED_SFX));
    return path;
}

/* "TASK-START [DOW] (0x7f/idx=0) [source]->[path] length=0, expiry=60 lid=[id]", and TASK-END. */
std::optional<order> parse_task(std::string_view text)
{
    order o;
    const size_t tail = text.rfind("] length=");
    const size_t arrow = text.rfind("]->[", tail);
    const size_t src = text.find(") [");
    if (tail == std::string_view::npos || arrow == std::string_view::npos || src == std::string_view::npos ||
        src + 3 > arrow || arrow + 4 > tail)
        return std::nullopt;
    o.src = text.substr(src + 3, arrow - src - 3);
    o.path = text.substr(arrow + 4, tail - arrow - 4);
    const auto expiry = parse_num<long>(between(text.substr(tail), "expiry=", " lid=["));
    /* What no order can be is a forged line. */
    if (!expiry || o.src.size() >= SPEC_URL_MAX || o.path.size() >= SPEC_PATH_MAX || printable(o.src) != o.src ||
        printable(o.path) != o.path)
        return std::nullopt;
    o.expiry = *expiry;
    return o;
}

void lose(history* h, order o, const char* what)
{
    o.what = what;
    h->lost[o.path] = std::move(o);
}

void take_start(history* h, const record& r)
{
    auto o = parse_task(r.text);
    if (!o)
        return;
    o->path = without_suffix(o->path);
    o->tm = time_of(r);
    o->is_of_channel = r.is_of_channel;
    h->running[{r.pid, o->path}] = std::move(*o);
}

/* A task whose end cannot be told from a refusal that its sender was told counts as lost only when its line says so. */
void take_end(history* h, const record& r)
{
    const auto end = parse_task(r.text);
    if (!end)
        return;
    const auto it = h->running.find({r.pid, without_suffix(end->path)});
    if (it == h->running.end())
        return;
    const order o = std::move(it->second);
    h->running.erase(it);
    if (o.is_stored)
        return;
    if (h->quitting.contains(r.pid)) {
        lose(h, o, "cut by a stop");
    } else if (o.is_answered) {
        lose(h, o, "broken");
    } else if (h->unnamed_breaks > 0) {
        --h->unnamed_breaks;
        lose(h, o, "broken");
    } else if (o.is_of_channel) {
        lose(h, o, "failed, and no answer tells a datagram's sender");
    }
}

void take_stored(history* h, const record& r)
{
    const std::string path = between(r.text, "] to [", "]");
    h->lost.erase(path);
    const auto it = h->running.find({r.pid, path});
    if (it == h->running.end())
        return;
    it->second.is_stored = true;
    if (!h->want_stored)
        return;
    order& o = h->stored[path];
    o = it->second;
    o.tm = time_of(r);
}

/* The answer has gone out before these failures. */
void take_error(history* h, const record& r)
{
    std::string path;
    if (r.text.starts_with("read_fragment: [") && r.text.find("] failed, rc=") != std::string_view::npos)
        path = between(r.text, "[", "] failed, rc=");
    else if (r.text.starts_with("complete_download: rename("))
        path = between(r.text, "rename(", ", ");
    else if (r.text.starts_with("complete_download: ") || r.text.starts_with("on_read: task [") ||
             r.text.starts_with("on_write: task [") || r.text.starts_with("on_error: task ["))
        ++h->unnamed_breaks;
    const auto it = h->running.find({r.pid, without_suffix(path)});
    if (it != h->running.end())
        it->second.is_answered = true;
}

void take_unregistered(history* h, const record& r)
{
    order o;
    o.tm = time_of(r);
    const std::string dst = between(r.text, "failed to add [", "]");
    o.path = g_set.data_dir + "/" + dst;
    const auto task = h->running.find({r.pid, o.path});
    const auto local = h->local_expiry.find(r.pid);
    if (task != h->running.end())
        o.expiry = task->second.expiry;
    else if (local != h->local_expiry.end())
        o.expiry = local->second;
    else if (h->unregistered.contains(dst))
        return; /* tried once more, in vain */
    else
        o.what = "its expiry is not in the log: kovctl --expiry SECONDS register";
    h->unregistered[dst] = std::move(o);
}

/* Level info tells every registration before it is tried. */
void take_registration(history* h, const record& r)
{
    const std::string dst = between(r.text, "id=[", "], url=[");
    const auto expiry = parse_num<long>(r.text.substr(r.text.rfind('=') + 1));
    if (!expiry)
        return;
    h->local_expiry[r.pid] = *expiry;
    h->unregistered.erase(dst);
    const auto it = h->stored.find(g_set.data_dir + "/" + dst);
    if (it == h->stored.end())
        return;
    it->second.expiry = *expiry;
    it->second.tm = time_of(r);
}

void cut_all(history* h, pid_t pid, const char* what)
{
    for (auto it = h->running.begin(); it != h->running.end();) {
        if (it->first.first != pid) {
            ++it;
            continue;
        }
        if (!it->second.is_stored)
            lose(h, it->second, what);
        it = h->running.erase(it);
    }
    h->quitting.erase(pid);
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
    else if (r.is_error && r.is_of_task)
        take_error(h, r);
    else if (r.text.ends_with(" has been asked to quit."))
        h->quitting.insert(r.pid);
    else if (r.text.find(" STARTING. PID=") != std::string_view::npos)
        cut_all(h, r.pid, "cut by a crash"); /* a number that an earlier process had */
}

/* The configured log after those that were rotated, oldest first. */
std::vector<fs::path> default_logs()
{
    const fs::path log = g_cfg.log.path;
    if (log.empty() || log.native().front() == '|')
        fail(STATUS_USAGE, "the configuration has no log file: name the logs, the oldest first");
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

/* No record is longer than LINE_MAX_LEN: what goes beyond is passed by, so that no log takes all the memory. */
bool next_line(std::istream& in, std::string* line)
{
    std::array<char, LINE_MAX_LEN> buf{};
    in.getline(buf.data(), buf.size());
    line->assign(buf.data());
    if (in.fail() && in.gcount() > 0 && !in.eof()) {
        in.clear();
        in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return static_cast<bool>(in) || !line->empty();
}

void read_logs(std::span<char* const> args, history* h)
{
    if (g_set.data_dir.empty())
        fail(STATUS_USAGE, "no data directory given: name the configuration (-C) or the directory (-D)");
    std::error_code ec;
    if (const fs::path absolute = fs::absolute(g_set.data_dir, ec); !ec)
        g_set.data_dir = absolute.lexically_normal();
    const std::vector<fs::path> logs = args.empty() ? default_logs() : std::vector<fs::path>(args.begin(), args.end());
    for (const fs::path& log : logs) {
        std::ifstream in(log);
        if (!in)
            fail(STATUS_USAGE, log.native() + ": " + strerror(errno));
        for (std::string line; next_line(in, &line);) {
            if (const auto r = parse_record(line))
                take_record(h, *r);
        }
    }
    std::set<pid_t> gone;
    for (const auto& [key, o] : h->running) {
        /* After a reboot another agent may have the number. */
        if (!is_agent(key.first) || (o.tm != 0 && o.tm + CLOCK_SLACK_SEC < start_of(key.first)))
            gone.insert(key.first);
    }
    for (const pid_t pid : gone)
        cut_all(h, pid, "cut by a crash");
    /* What is being fetched once more, or is there after all, is not lost. */
    for (const auto& [key, o] : h->running)
        h->lost.erase(o.path);
    std::erase_if(h->lost, [](const auto& entry) { return access(entry.first.c_str(), F_OK) == 0; });
}

/* ---- what is left of an expiry ---- */

/* None when it is over. */
std::optional<long> left_of(const order& o, time_t now)
{
    if (o.expiry <= 0)
        return o.expiry;
    if (o.expiry >= FIRST_UNIX_TIME)
        return o.expiry > now ? std::optional(o.expiry) : std::nullopt;
    if (o.tm == 0)
        fail(STATUS_USAGE, "this log has no times: what is left of an expiry is not known");
    const long left = o.tm + o.expiry - now;
    return left > 0 ? std::optional(left) : std::nullopt;
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
std::optional<std::string> dst_of(const order& o)
{
    const std::string dir = g_set.data_dir.ends_with('/') ? g_set.data_dir : g_set.data_dir + "/";
    return o.path.starts_with(dir) ? std::optional(o.path.substr(dir.size())) : std::nullopt;
}

/* ---- the database ---- */

/* Whether a reader is still sent to this copy: somebody has registered it again. */
bool is_wanted(redisContext* redis, const std::string& dst, time_t now)
{
    const std::string url = g_set.prefix + "/" + dst;
    const reply_ptr score = ask_redis(redis, "ZSCORE %s %s", dst.c_str(), url.c_str());
    return score->type == REDIS_REPLY_STRING && strtod(score->str, nullptr) > static_cast<double>(now);
}

} // namespace

int cmd_lost(std::span<char* const> args)
{
    history h;
    read_logs(args, &h);
    const time_t now = time(nullptr);
    for (const auto& [path, o] : h.lost)
        printf("%s -> %s: %s, %s\n", printable(o.src).c_str(), printable(path).c_str(), o.what,
               left_text(left_of(o, now)).c_str());
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

int cmd_replay(std::span<char* const> args)
{
    history h;
    read_logs(args, &h);
    const time_t now = time(nullptr);
    int status = 0;
    for (const auto& [path, o] : h.lost) {
        const auto left = left_of(o, now);
        const auto dst = dst_of(o);
        if (!left || !dst) {
            printf("%s: %s\n", printable(path).c_str(), left ? "not below the data directory" : "its time is over");
            continue;
        }
        await_stale(path + UNFINISHED_SFX);
        g_set.expiry = std::to_string(left_of(o, time(nullptr)).value_or(*left));
        const int rc = place_order(o.src, *dst);
        status = rc == 0 || rc == STATUS_EXISTS ? status : rc;
    }
    return status;
}

int cmd_register_from_log(std::span<char* const> args)
{
    history h;
    read_logs(args, &h);
    const time_t now = time(nullptr);
    int status = 0;
    for (const auto& [dst, o] : h.unregistered) {
        const auto left = left_of(o, now);
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
    history h;
    h.want_stored = true;
    read_logs(args, &h);
    const time_t now = time(nullptr);
    const std::optional<fleet_db> db = g_cfg.lbdb.port > 0 ? std::optional(open_fleet_db()) : std::nullopt;
    removal r;
    for (const auto& [path, o] : h.stored) {
        struct stat st {
        };
        const auto dst = dst_of(o);
        /* A file that has changed since is another order's. */
        if (!dst || left_of(o, now) || is_unfinished(path) || lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
            st.st_mtime > o.tm)
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
