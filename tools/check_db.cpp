/* The database that a configuration names: is it there, does it know the script, and is it one that an agent can
   register with for long? */
#include "check.h"

#include "guard.h"
#include "lbquery.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <hiredis/hiredis.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

namespace
{

constexpr size_t SHA1_LEN = 40;
constexpr timeval WAIT = {1, 0};

using redis_ptr = std::unique_ptr<redisContext, releaser<redisFree>>;
using reply_ptr = std::unique_ptr<redisReply, releaser<freeReplyObject>>;

redis_ptr connect_to(const lbdb_cfg& db)
{
    redis_ptr redis(redisConnectWithTimeout(db.host, db.port, WAIT));
    if (!redis || redis->err || redisSetTimeout(redis.get(), WAIT) != REDIS_OK)
        redis.reset();
    return redis;
}

template <typename... Args>
reply_ptr ask(const redis_ptr& redis, const char* format, Args... args)
{
    return reply_ptr(static_cast<redisReply*>(redisCommand(redis.get(), format, args...)));
}

bool is_error(const reply_ptr& reply, std::string_view code)
{
    return reply && reply->type == REDIS_REPLY_ERROR && std::string_view(reply->str).starts_with(code);
}

/* Any answer but the one of a server that still reads its data. */
bool answers(const lbdb_cfg& db)
{
    const redis_ptr redis = connect_to(db);
    if (!redis)
        return false;
    const reply_ptr reply = ask(redis, "PING");
    return reply && !is_error(reply, "LOADING");
}

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

void check_script(const lbdb_cfg& db, const redis_ptr& redis, const std::string& digest)
{
    const reply_ptr reply = ask(redis, "SCRIPT EXISTS %s", digest.c_str());
    if (is_error(reply, ""))
        warn("lbdb %s:%d refuses the agent, which will not start: %s", db.host, db.port, reply->str);
    else if (reply && reply->type == REDIS_REPLY_ARRAY && reply->elements == 1 && reply->element[0]->integer == 0)
        warn("lbdb %s:%d does not know the script of %s/add_url.sha1: the agent will not start (load-scripts loads it)",
             db.host, db.port, db.sha1_path);
}

/* An agent registers with the one server that it has connected to at its start. */
void check_role(const lbdb_cfg& db, const redis_ptr& redis)
{
    const reply_ptr role = ask(redis, "ROLE");
    if (role && role->type == REDIS_REPLY_ARRAY && role->elements > 0 && role->element[0]->type == REDIS_REPLY_STRING &&
        strcmp(role->element[0]->str, "master") != 0)
        warn("lbdb %s:%d is a %s: it takes no registrations; name the master, or an outbox (docs/FLEET.md)", db.host,
             db.port, strcmp(role->element[0]->str, "slave") == 0 ? "replica" : role->element[0]->str);
    const reply_ptr info = ask(redis, "INFO cluster");
    if (info && info->type == REDIS_REPLY_STRING && strstr(info->str, "cluster_enabled:1"))
        warn("lbdb %s:%d is a node of a cluster: it refuses what other nodes hold (MOVED), and those files are not "
             "registered; use an outbox (docs/FLEET.md)",
             db.host, db.port);
}

} // namespace

void check_database(const lbdb_cfg& db)
{
    if (db.port <= 0)
        return;
    const std::string digest = read_digest(db);
    const redis_ptr redis = connect_to(db);
    if (!redis) {
        warn("lbdb: no database answers at %s:%d: the agent will not start", db.host, db.port);
        return;
    }
    if (!digest.empty())
        check_script(db, redis, digest);
    check_role(db, redis);
}

bool await_database(const lbdb_cfg& db, int seconds)
{
    if (db.port <= 0)
        return true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!answers(db)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        usleep(200000);
    }
    return true;
}
