/* The database that a configuration names: is it there, does it know the script, and is it one that an agent can
   register with for long?
   The difficulty is what an agent does not look at: it connects once, at its start, and takes whatever answers for its
   database. A replica, a node of a cluster or a server that has lost the script lets it start, and then refuses each
   registration. So the questions here are those that only later answers would tell. */
#include "check.h"

#include "guard.h"
#include "lbquery.h"
#include "redis_ask.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

namespace
{

constexpr size_t SHA1_LEN = 40;
constexpr timeval WAIT = {1, 0};

/* Empty when there is none that the agent could use. */
std::string read_digest(const lbdb_cfg& db)
{
    const std::string path = std::string(db.sha1_path) + "/add_url.sha1";
    const std::unique_ptr<FILE, releaser<fclose>> fp(fopen(path.c_str(), "re"));
    std::array<char, 128> line{};
    if (!fp || !fgets(line.data(), line.size(), fp.get())) {
        warn("%s cannot be read: the agent will not start (load-scripts writes it)", path.c_str());
        return {};
    }
    const std::string_view digest(line.data(), strcspn(line.data(), "\n"));
    if (digest.size() != SHA1_LEN || digest.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
        warn("%s does not hold a SHA1 digest: the agent will not start", path.c_str());
        return {};
    }
    return std::string(digest);
}

} // namespace

void check_database(const lbdb_cfg& db)
{
    if (db.port <= 0)
        return;
    const std::string digest = read_digest(db);
    const redis_ptr redis = connect_redis(db.host, db.port, WAIT);
    if (!redis) {
        warn("lbdb: no database answers at %s:%d: the agent will not start", db.host, db.port);
        return;
    }
    if (!digest.empty()) {
        const reply_ptr known = try_redis(redis.get(), "SCRIPT EXISTS %s", digest.c_str());
        if (!known)
            warn("lbdb %s:%d does not say whether it knows the script: %s", db.host, db.port, redis->errstr);
        else if (is_error(known.get(), ""))
            warn("lbdb %s:%d refuses the agent, which will not start: %s", db.host, db.port, known->str);
        else if (count_of(known.get()) == 1 && number_of(element_of(known.get(), 0)) == 0)
            warn("lbdb %s:%d does not know the script of %s/add_url.sha1: the agent will not start (load-scripts loads "
                 "it)",
                 db.host, db.port, db.sha1_path);
    }
    /* An agent registers with the one server that it has connected to at its start. */
    const reply_ptr answer = try_redis(redis.get(), "ROLE");
    const std::string role = answer ? text_of(element_of(answer.get(), 0)) : "";
    if (!role.empty() && role != "master")
        warn("lbdb %s:%d is a %s: it takes no registrations; name the master, or an outbox (docs/FLEET.md)", db.host,
             db.port, role == "slave" ? "replica" : role.c_str());
    if (is_cluster_node(redis.get()))
        warn("lbdb %s:%d is a node of a cluster: it refuses what other nodes hold (MOVED), and those files are not "
             "registered; use an outbox (docs/FLEET.md)",
             db.host, db.port);
}

bool await_database(const lbdb_cfg& db, int seconds)
{
    if (db.port <= 0)
        return true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const redis_ptr redis = connect_redis(db.host, db.port, WAIT);
        const reply_ptr reply = redis ? try_redis(redis.get(), "PING") : nullptr;
        if (reply && !is_error(reply.get(), "LOADING")) /* a server that still reads its data */
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        usleep(200000);
    }
}
