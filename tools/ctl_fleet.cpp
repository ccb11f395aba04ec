/* What the fleet's database tells of the fleet: who lives, who has how many files, what ends soon.
   The difficulty is size: a fleet has millions of ids, which nobody wants over the wire, and whose readers must not
   wait. So the server itself counts, a page at a time, and only sums and the few ids that are shown come here. */
#include "ctl_db.h"
#include "strops.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

namespace
{

constexpr int64_t LIVES_MS = 3000; /* after its last beat: as long as balancers send players to a host */
constexpr long SOON_SEC = 3600;
constexpr size_t SHOWN = 10;
constexpr size_t HOST_WIDTH = 40;    /* columns at the most, else out of line */
constexpr size_t HOSTS_MAX = 100000; /* an id may have a copy at any name at all */
constexpr uint64_t IDS_SPARE = 1000; /* beyond what a server's number of keys allows */
constexpr auto SCAN_WAIT = std::chrono::minutes(1);
constexpr auto SCAN_WAIT_A_KEY = std::chrono::microseconds(100); /* ten times the usual */
constexpr uint64_t KEYS_MAX = 36'000'000;                        /* these take an hour at the most */
constexpr const char* ALIVE_KEY = "kov:alive";

/* Counts one page of ids where they are: a million would be 100 MB on the wire. A page holds the server up for half a
   millisecond. ARGV: cursor, now, horizon, the living hosts. Answers the cursor, the number of ids that have a
   copy, {id, end}... of those that end within the horizon, {id}... of those that no living host has, and
   {host, copies, those that end within the horizon, those that never do}... */
constexpr const char* PAGE = R"(
local now, horizon, lives = ARGV[2], tonumber(ARGV[3]), {}
for i = 4, #ARGV do lives[ARGV[i]] = true end
local page = redis.call('SCAN', ARGV[1], 'COUNT', 100, 'TYPE', 'zset')
local ids, ending, lost, hosts, order = 0, {}, {}, {}, {}
for _, id in ipairs(page[2]) do
    local copies = redis.call('ZRANGEBYSCORE', id, '(' .. now, '+inf', 'WITHSCORES')
    local is_held, tail = false, '/' .. id
    for i = 1, #copies, 2 do
        local host, ends = copies[i], copies[i + 1]
        if host:sub(-#tail) == tail then host = host:sub(1, -#tail - 1) end
        if not hosts[host] then
            hosts[host] = {host, 0, 0, 0}
            order[#order + 1] = hosts[host]
        end
        local h = hosts[host]
        h[2] = h[2] + 1
        if ends == 'inf' then h[4] = h[4] + 1 elseif tonumber(ends) <= horizon then h[3] = h[3] + 1 end
        is_held = is_held or lives[host]
    end
    if #copies > 0 then
        ids = ids + 1
        local last = copies[#copies]
        if last ~= 'inf' and tonumber(last) <= horizon then ending[#ending + 1] = {id, last} end
        if not is_held then lost[#lost + 1] = id end
    end
end
return {page[1], ids, ending, lost, order}
)";

using std::chrono::steady_clock;

struct host_row {
    bool is_beating = false; /* there is a field for it; the next four are from there */
    int64_t age_ms = 0;
    std::string weight;
    uint64_t free_bytes = 0;
    std::string agent; /* 1 it answers, 0 it does not, - nobody knows */
    uint64_t copies = 0;
    uint64_t soon = 0;
    uint64_t never = 0;

    [[nodiscard]] bool lives() const { return is_beating && age_ms <= LIVES_MS; }
};

struct fleet_state {
    std::map<std::string, host_row> hosts;
    long now = 0; /* s, by the clock of the server that was asked last */
    uint64_t ids = 0;
    uint64_t ending = 0;                            /* ids whose last copy ends within the horizon */
    std::set<std::pair<long, std::string>> soonest; /* the first of them, and when */
    uint64_t lost = 0;                              /* ids that no living host has */
    std::set<std::string> lost_shown;
    uint64_t copies_elsewhere = 0; /* at hosts beyond HOSTS_MAX */
    bool is_whole = true;          /* each server has answered */
};

int64_t now_ms(redisContext* redis)
{
    const reply_ptr reply = ask_redis(redis, "TIME");
    const auto seconds = parse_num<int64_t>(text_of(element_of(reply.get(), 0)));
    const auto us = parse_num<int64_t>(text_of(element_of(reply.get(), 1)));
    if (!seconds || !us)
        fail(STATUS_UNREGISTERED, "the database does not tell its time");
    constexpr int64_t MS = 1000;
    return *seconds * MS + *us / MS;
}

/* Who lives. The hash has a field for each host: "beat_ms weight free all agent". */
void read_alive(const fleet_db& db, fleet_state* f)
{
    redisContext* redis = server_of(db, ALIVE_KEY);
    const int64_t now = now_ms(redis); /* the beats are by this server's clock */
    const reply_ptr reply = ask_redis(redis, "HGETALL %s", ALIVE_KEY);
    for (size_t i = 0; i + 1 < count_of(reply.get()); i += 2) {
        std::istringstream beat(text_of(element_of(reply.get(), i + 1)));
        std::array<std::string, 5> words;
        words.fill("-"); /* what a beat does not say is unknown, and no fault */
        for (std::string& word : words)
            beat >> word;
        f->hosts[text_of(element_of(reply.get(), i))] = {.is_beating = true,
                                                         .age_ms = now - parse_num<int64_t>(words[0]).value_or(0),
                                                         .weight = words[1],
                                                         .free_bytes = parse_num<uint64_t>(words[2]).value_or(0),
                                                         .agent = words[4]};
    }
}

/* A page may name an id again that an earlier one had, as SCAN may; in a fleet at rest it does not. */
void take_page(const redisReply* page, fleet_state* f)
{
    f->ids += static_cast<uint64_t>(number_of(element_of(page, 1)));
    const redisReply* ending = element_of(page, 2);
    f->ending += count_of(ending);
    for (size_t i = 0; i < count_of(ending); ++i) {
        const redisReply* e = element_of(ending, i);
        f->soonest.emplace(strtol(text_of(element_of(e, 1)).c_str(), nullptr, 10), text_of(element_of(e, 0)));
        if (f->soonest.size() > SHOWN)
            f->soonest.erase(std::prev(f->soonest.end()));
    }
    const redisReply* lost = element_of(page, 3);
    f->lost += count_of(lost);
    for (size_t i = 0; i < count_of(lost) && f->lost_shown.size() < SHOWN; ++i)
        f->lost_shown.insert(text_of(element_of(lost, i)));
    /* Hosts that only copies name, which have never said that they live, get a row as well. */
    const redisReply* hosts = element_of(page, 4);
    for (size_t i = 0; i < count_of(hosts); ++i) {
        const redisReply* h = element_of(hosts, i);
        const std::string name = text_of(element_of(h, 0));
        if (f->hosts.size() >= HOSTS_MAX && !f->hosts.contains(name)) {
            f->copies_elsewhere += static_cast<uint64_t>(number_of(element_of(h, 1)));
            continue;
        }
        host_row& row = f->hosts[name];
        row.copies += static_cast<uint64_t>(number_of(element_of(h, 1)));
        row.soon += static_cast<uint64_t>(number_of(element_of(h, 2)));
        row.never += static_cast<uint64_t>(number_of(element_of(h, 3)));
    }
}

/* All ids of one server. Who lives is told to it with each page: in a cluster it may not hold that key itself. A server
   that is broken, or not what it says, may go on for ever: it gets as many ids as it has keys, with room for what SCAN
   names twice and for what comes meanwhile, and ten times as long as that takes. */
void read_ids(redisContext* redis, fleet_state* f)
{
    constexpr int64_t MS = 1000;
    const reply_ptr size = ask_redis(redis, "DBSIZE");
    const auto keys = static_cast<uint64_t>(std::max<int64_t>(number_of(size.get()), 0));
    const uint64_t ids_max = f->ids + keys * 2 + IDS_SPARE;
    const auto deadline = steady_clock::now() + SCAN_WAIT + SCAN_WAIT_A_KEY * std::min(keys, KEYS_MAX);
    f->now = now_ms(redis) / MS;
    const std::string now_text = std::to_string(f->now);
    const std::string horizon = std::to_string(f->now + g_set.timeout.value_or(SOON_SEC));
    std::vector<std::string> living;
    for (const auto& [name, row] : f->hosts) {
        if (row.lives())
            living.push_back(name);
    }
    std::string cursor = "0";
    do {
        if (f->ids > ids_max || steady_clock::now() > deadline)
            fail(STATUS_UNREGISTERED, "the database's ids do not end: " + std::to_string(f->ids) + " so far, it has " +
                                          std::to_string(keys) + " keys");
        std::vector<const char*> args = {"EVAL", PAGE, "0", cursor.c_str(), now_text.c_str(), horizon.c_str()};
        for (const std::string& name : living)
            args.push_back(name.c_str());
        (void)redisAppendCommandArgv(redis, static_cast<int>(args.size()), args.data(), nullptr);
        const reply_ptr page = await_reply(redis);
        check_answer(redis, page.get());
        if (count_of(page.get()) != 5)
            fail(STATUS_UNREGISTERED, "the database does not count");
        take_page(page.get(), f);
        cursor = text_of(element_of(page.get(), 0));
    } while (cursor != "0");
}

/* A table of the hosts, the sums, then the ids that somebody should look at. */
void print(const fleet_state& f)
{
    constexpr double GIB = 1 << 30;
    constexpr int64_t MS = 1000;
    int width = strlen("host");
    for (const auto& [name, row] : f.hosts)
        width = std::max(width, static_cast<int>(std::min(name.size(), HOST_WIDTH)));
    printf("%-*s %-10s %6s %8s %5s %8s %8s %7s\n", width, "host", "lives", "weight", "free GiB", "agent", "copies",
           "end soon", "never");
    for (const auto& [name, row] : f.hosts) {
        const std::string lives = !row.is_beating ? "never seen"
                                  : row.lives()   ? "yes"
                                                  : "no, " + std::to_string(row.age_ms / MS) + " s";
        const char* agent = row.agent == "1" ? "yes" : row.agent == "0" ? "no" : "-";
        std::array<char, 32> free{"-"};
        if (row.is_beating)
            snprintf(free.data(), free.size(), "%.1f", static_cast<double>(row.free_bytes) / GIB);
        printf("%-*s %-10s %6s %8s %5s %8" PRIu64 " %8" PRIu64 " %7" PRIu64 "\n", width, printable(name).c_str(),
               lives.c_str(), row.is_beating ? printable(row.weight).c_str() : "-", free.data(), agent, row.copies,
               row.soon, row.never);
    }
    if (f.copies_elsewhere > 0)
        printf("at further hosts, which are not shown: %" PRIu64 " copies\n", f.copies_elsewhere);
    printf("ids: %" PRIu64 "; their last copy ends within %ld s: %" PRIu64 "; on no living host: %" PRIu64 "\n", f.ids,
           g_set.timeout.value_or(SOON_SEC), f.ending, f.lost);
    for (const auto& [ends, id] : f.soonest)
        printf("ends in %ld s: %s\n", ends - f.now, printable(id).c_str());
    for (const std::string& id : f.lost_shown)
        printf("on no living host: %s\n", printable(id).c_str());
    if (!f.hosts.empty() &&
        std::none_of(f.hosts.begin(), f.hosts.end(), [](const auto& h) { return h.second.is_beating; }))
        puts("no host has ever said that it lives: does kov-alive run there?");
}

} // namespace

/* Its status is for a monitor: 1 also when a part of the fleet could not be asked. */
int cmd_fleet()
{
    const fleet_db db = open_fleet_db();
    fleet_state f;
    read_alive(db, &f);
    for (const db_server& s : db.servers) {
        if (s.redis) {
            read_ids(s.redis.get(), &f);
        } else {
            f.is_whole = false;
            printf("%s: does not answer; its ids are not counted\n", s.name.c_str());
        }
    }
    print(f);
    const bool are_all_well =
        f.is_whole && f.lost == 0 &&
        std::all_of(f.hosts.begin(), f.hosts.end(), [](const auto& host) { return host.second.lives(); });
    return are_all_well ? 0 : STATUS_REFUSED;
}
