/* Commands to a Redis that may be broken, or somebody else's: the answer to each is bounded in bytes and in time, and
   no part of it is taken for what it is not. */
#pragma once

#include "guard.h"

#include <cstdint>
#include <hiredis/hiredis.h>
#include <memory>
#include <string>
#include <string_view>

using redis_ptr = std::unique_ptr<redisContext, releaser<redisFree>>;
using reply_ptr = std::unique_ptr<redisReply, releaser<freeReplyObject>>;

/* Null: nobody answers there within `wait`, which also bounds each later step of this connection. */
[[nodiscard]] redis_ptr connect_redis(const std::string& host, int port, timeval wait);
/* The answer to the oldest command without one. Null when the connection has broken, or when the answer does not end
   within 8 MiB and 10 s: redis->errstr says which, and the connection is of no use any more. */
[[nodiscard]] reply_ptr await_reply(redisContext* redis);
/* One command, arguments as for redisCommand. */
template <class... Args>
[[nodiscard]] reply_ptr try_redis(redisContext* redis, const char* format, Args... args)
{
    return redisAppendCommand(redis, format, args...) == REDIS_OK ? await_reply(redis) : nullptr;
}

/* Whether it is a node of a cluster. What a user of few rights may not ask is no. */
[[nodiscard]] bool is_cluster_node(redisContext* redis);

/* Whether it is an error that begins so. */
[[nodiscard]] bool is_error(const redisReply* reply, std::string_view code);
/* Of a list; 0 of anything else. */
[[nodiscard]] size_t count_of(const redisReply* reply);
/* The i-th element; an empty answer when it is no list of so many. */
[[nodiscard]] const redisReply* element_of(const redisReply* reply, size_t i);
/* Empty when it is no text. */
[[nodiscard]] std::string text_of(const redisReply* reply);
/* 0 when it is no number. */
[[nodiscard]] int64_t number_of(const redisReply* reply);
