/* Commands to a Redis. The difficulty is that the client library takes an answer of any size: it reads until the last
   byte that was announced, and makes room for a list before its first element has come. So the reading is done here,
   piece by piece, and the library only takes the pieces apart. */
#include "redis_ask.h"

#include "strops.h"

#include <chrono>

namespace
{

constexpr size_t ANSWER_MAX = 8 << 20; /* bytes: the slots of a scattered cluster take three million */
constexpr size_t ELEMENT_MIN = 4;      /* bytes of an element, ":0\r\n" */
constexpr auto ANSWER_WAIT = std::chrono::seconds(10);

using std::chrono::steady_clock;

decltype(redisReplyObjectFunctions::createArray) g_make_list = nullptr; /* the library's, kept by connect_redis */

/* In its place: a list that cannot fit into an answer is refused, which is what lack of memory is. */
template <class Count>
void* make_bounded_list(const redisReadTask* task, Count elements)
{
    return static_cast<uint64_t>(elements) <= ANSWER_MAX / ELEMENT_MIN ? g_make_list(task, elements) : nullptr;
}

reply_ptr refuse(redisContext* redis, const char* why)
{
    redis->err = REDIS_ERR_OTHER;
    cut_text(redis->errstr, sizeof(redis->errstr), why);
    return nullptr;
}

} // namespace

redis_ptr connect_redis(const std::string& host, int port, timeval wait)
{
    redis_ptr redis(redisConnectWithTimeout(host.c_str(), port, wait));
    if (!redis || redis->err || redisSetTimeout(redis.get(), wait) != REDIS_OK)
        return nullptr;
    static redisReplyObjectFunctions functions = *redis->reader->fn;
    if (!g_make_list) {
        g_make_list = functions.createArray;
        functions.createArray = make_bounded_list;
    }
    redis->reader->fn = &functions;
    return redis;
}

reply_ptr await_reply(redisContext* redis)
{
    for (int is_sent = 0; !is_sent;) {
        if (redisBufferWrite(redis, &is_sent) != REDIS_OK)
            return nullptr;
    }
    /* The connection's own time bounds each piece; a server that sends a byte a second is bounded here. */
    const auto deadline = steady_clock::now() + ANSWER_WAIT;
    for (size_t size = 0; size <= ANSWER_MAX;) {
        void* reply = nullptr;
        if (redisGetReplyFromReader(redis, &reply) != REDIS_OK)
            return redis->err == REDIS_ERR_OOM ? refuse(redis, "a list that is too long, or no memory") : nullptr;
        if (reply)
            return reply_ptr(static_cast<redisReply*>(reply));
        if (steady_clock::now() >= deadline)
            return refuse(redis, "no end of it within 10 s; what has come is dropped");
        const size_t before = redis->reader->len;
        if (redisBufferRead(redis) != REDIS_OK)
            return nullptr;
        size += redis->reader->len - before;
    }
    return refuse(redis, "more than 8 MiB; what has come is dropped");
}

bool is_cluster_node(redisContext* redis)
{
    const reply_ptr info = try_redis(redis, "INFO cluster");
    return info && text_of(info.get()).find("cluster_enabled:1") != std::string::npos;
}

bool is_error(const redisReply* reply, std::string_view code)
{
    return reply->type == REDIS_REPLY_ERROR && std::string_view(reply->str, reply->len).starts_with(code);
}

const redisReply* element_of(const redisReply* reply, size_t i)
{
    static const redisReply none = [] {
        redisReply r{};
        r.type = REDIS_REPLY_NIL;
        return r;
    }();
    return reply->type == REDIS_REPLY_ARRAY && i < reply->elements ? reply->element[i] : &none;
}

size_t count_of(const redisReply* reply)
{
    return reply->type == REDIS_REPLY_ARRAY ? reply->elements : 0;
}

std::string text_of(const redisReply* reply)
{
    const bool is_text = reply->type == REDIS_REPLY_STRING || reply->type == REDIS_REPLY_STATUS;
    return is_text ? std::string(reply->str, reply->len) : "";
}

int64_t number_of(const redisReply* reply)
{
    return reply->type == REDIS_REPLY_INTEGER ? reply->integer : 0;
}
