/* The database that a fleet's readers read: the environment's KOV_FLEET, as for kov-forward and kov-alive, else the
   configuration's lbdb. User and password stand in KOV_FLEET, or in REDISCLI_USER and REDISCLI_AUTH. */
#pragma once

#include "ctl.h"
#include "redis_ask.h"

#include <string>
#include <vector>

/* A server of its own, or one master of a cluster. */
struct db_server {
    std::string name; /* host:port */
    redis_ptr redis;  /* null: no answer there */
};
struct fleet_db {
    std::vector<db_server> servers; /* at least one */
    std::vector<size_t> owners;     /* of a cluster's slots: places in servers, SIZE_MAX: nobody's; else empty */
};
/* Ends the program when no database answers. Of a cluster, masters that do not are there with a null connection. */
[[nodiscard]] fleet_db open_fleet_db();
/* The connection to the server that has the key. Ends the program when that one does not answer. */
[[nodiscard]] redisContext* server_of(const fleet_db& db, const std::string& key);

/* Ends the program when the answer is an error, or null. */
void check_answer(const redisContext* redis, const redisReply* reply);
/* One command; an error, or no answer, ends the program. Arguments as for redisCommand. */
template <class... Args>
reply_ptr ask_redis(redisContext* redis, const char* format, Args... args)
{
    reply_ptr reply = try_redis(redis, format, args...);
    check_answer(redis, reply.get());
    return reply;
}
