/* Client of the load-balancer database. The scripts live in the server and are called only by their digests, which are
   read from small files at start-up. One connection serves the whole life; it is never opened again. Every command is
   waited for, with the signals let in.
   The difficulty is a server that misbehaves. The library would wait for ever, reserve what an answer announces, and
   take an answer that nobody has asked for as that to the next command: so the waits are made here, what an answer may
   hold is bounded, such answers are dropped, and once the stream cannot be read all later commands fail at once. */
#include "lbquery.h"

#include "guard.h"
#include "log.h"
#include "netops.h"
#include "signals.h"
#include "strops.h"
#include "timeop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t REPLY_CAP = 1024;
constexpr int REPLY_SHOWN = 80;
constexpr size_t REPLY_PREFIX_LEN = 3; /* a reply is three characters and the key */
constexpr size_t MIN_SHA1_LINE = 39;
constexpr size_t MAX_SHA1_LINE = 48;
constexpr size_t TEXT_LIMIT = 127;
constexpr uint32_t OPT_S = 1;
constexpr char OPT_S_TEXT[] = "-S";
constexpr int64_t QUIT_GRACE_MS = 500;      /* what a server still gets once the agent has been asked to quit */
constexpr size_t MAX_REPLY_BYTES = 1048576; /* more ends the connection instead of the memory */
constexpr unsigned SERVER_GONE_MS = 5000;   /* a host that has vanished is given up after it */
constexpr keepalive_pace SERVER_KEEPALIVE = {.idle_sec = 2, .interval_sec = 1, .probes = 3};
constexpr int64_t NO_DEADLINE = std::numeric_limits<int64_t>::max();

using reply_ptr = std::unique_ptr<redisReply, releaser<freeReplyObject>>;
using file_ptr = std::unique_ptr<FILE, releaser<fclose>>;

struct lbdb_ctx {
    time_t init_tm; /* 0 before lbdb_init */
    redisContext* redis;
    char add_sha1[LBQ_MAX_SHA1_LEN];
    char del_sha1[LBQ_MAX_SHA1_LEN];
    char next_sha1[LBQ_MAX_SHA1_LEN];
    char mbget_sha1[LBQ_MAX_SHA1_LEN];
    int32_t need_func; /* LBQ_FL_* */
    char call_opt[64];
    int64_t quit_deadline; /* ms of CLOCK_MONOTONIC; 0 = no quit signal has been met in a wait */
    bool is_in_doubt;      /* the last answer may have been that to another command */
};

/* Written by lbdb_init, lbdb_connect, lbdb_destroy, wait_for_server (the deadline), lbdb_add_segurl (the doubt). */
static lbdb_ctx g_ctx{};
static lbdb_cfg g_conn{}; /* host, port and time-out, for messages */

struct script_file {
    int32_t func;
    const char* name;
    char* sha1;
    const char* assertion; /* that the digest is there, as a log shows it */
};

/* What a digest's file is called in the configured directory, and where its text is kept. */
static const std::array<script_file, 4> SCRIPTS = {
    {{LBQ_FL_ADD, "add_url.sha1", g_ctx.add_sha1, "g_ctx.add_sha1[0]"},
     {LBQ_FL_DEL, "del_url.sha1", g_ctx.del_sha1, "g_ctx.del_sha1[0]"},
     {LBQ_FL_NEXT, "next_url.sha1", g_ctx.next_sha1, "g_ctx.next_sha1[0]"},
     {LBQ_FL_MBGET, "mbget_url.sha1", g_ctx.mbget_sha1, "g_ctx.mbget_sha1[0]"}}};

/* ---- settings ---- */

constexpr char LOADER[] = "load_lbdb_cfg"; /* which the messages of all readers name */

/* A text that may not be empty. */
template <auto field>
static int read_required(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    char* const dst = field_at(record, field);
    if (read_config_text(group, key, dst) != 0)
        return -1;
    if (*dst)
        return 0;
    LOG_ERR("%s: missing %s setting\n", LOADER, key.name);
    return -1;
}

static int read_port(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    int* const port = &static_cast<lbdb_cfg*>(record)->port;
    if (read_config_int(group, key, port) != 0)
        return -1;
    if (*port >= key.min && *port <= key.max)
        return 0;
    LOG_ERR("%s: invalid port value: %d\n", LOADER, *port);
    return -1;
}

static int read_connect_tmout(const config_setting_t* group, const config_key& key, void* record) noexcept
{
    size_t ms = 0;
    if (read_config_count(group, key, &ms) != 0)
        return -1;
    static_cast<lbdb_cfg*>(record)->tmout = {static_cast<time_t>(ms / 1000),
                                             static_cast<suseconds_t>(ms % 1000 * 1000)};
    return 0;
}

static constexpr config_key LBDB_ROWS[] = {
    {.name = "host",
     .types = V_STRING,
     .read = read_required<&lbdb_cfg::host>,
     .text = "Redis's host, name or address.",
     .limit = TEXT_LIMIT},
    {.name = "port", .types = V_INT, .read = read_port, .text = "Redis's port; 0: no database.", .max = 65535},
    {.name = "connect_tmout_ms",
     .types = V_INT,
     .read = read_connect_tmout,
     .text = "Milliseconds; a connect that takes longer fails the start.",
     .number = 500},
    {.name = "sha1_dir",
     .types = V_STRING,
     .read = read_required<&lbdb_cfg::sha1_path>,
     .text = "Directory of the scripts' digests.",
     .limit = TEXT_LIMIT},
};
constinit const config_table LBDB_KEYS = LBDB_ROWS;

int load_lbdb_cfg(const config_setting_t* group, lbdb_cfg* cfg) noexcept
{
    return load_config_keys(group, LBDB_KEYS, cfg);
}

/* ---- digests ---- */

/* A digest has 40 digits, of which as many are taken as there is room for; a line that is far shorter is none. */
int read_sha_signature(const char* path, char* buf, size_t cap) noexcept
{
    buf[0] = '\0';
    /* A FIFO in its place is as good as an empty file: no writer is waited for, and no quit signal behind him. */
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    const file_ptr file(fd >= 0 ? fdopen(fd, "r") : nullptr);
    if (!file) {
        LOG_ERRNO("%s: fopen(%s,...)", __func__, path);
        if (fd >= 0)
            close(fd);
        return -1;
    }
    if (!fgets(buf, static_cast<int>(cap) - 1, file.get())) {
        /* An empty digest; the connect will not go on with it. */
        LOG_ERRNUM(0, "%s: fgets(...)", __func__);
        buf[0] = '\0';
        return 0;
    }
    const size_t len = strlen(buf);
    if (len < MIN_SHA1_LINE || len > MAX_SHA1_LINE) {
        LOG_ERR("%s: [%s] unexpected SHA1 size: %zu\n", __func__, path, len);
        return -1;
    }
    if (buf[len - 1] == '\n')
        buf[len - 1] = '\0';
    LOG_DEBUG("[%s] -> (%s)\n", path, buf);
    return 0;
}

/* Before the connect only the file is looked at; afterwards the server is asked, too. */
int verify_db_script(const char* dir, const char* name, char* dst, size_t cap) noexcept
{
    std::array<char, LBQ_MAX_FPATH_LEN> path{};
    const size_t limit = path.size() - 1;
    const int n = snprintf(path.data(), limit, "%s/%s", dir, name);
    if (n < 1 || n > static_cast<int>(limit)) {
        LOG_ERR("%s: buffer overflow/error, n=%d, dir=%s, script=%s, buflen=%zu\n", __func__, n, dir, name, limit);
        return -1;
    }
    if (const int rc = read_sha_signature(path.data(), dst, cap))
        return rc;
    return g_ctx.redis ? check_script_exists(dst) : 0;
}

/* Digests first: without them there is no use in a connection. A failure leaves nothing behind. */
int lbdb_init(const char* sha1_dir, int32_t need_func, uint32_t options) noexcept
{
    ASSERT(0 == g_ctx.init_tm);
    const size_t len = strlen(sha1_dir);
    if (!copy_text(g_conn.sha1_path, sizeof(g_conn.sha1_path), sha1_dir)) {
        LOG_ERR("%s: sha1_dir is too long: %zu/%zu\n", __func__, len, LBQ_MAX_DIRNAME_LEN - 1);
        return ERANGE;
    }
    for (const script_file& s : SCRIPTS) {
        if (!(need_func & s.func))
            continue;
        if (const int rc = verify_db_script(sha1_dir, s.name, s.sha1, LBQ_MAX_SHA1_LEN)) {
            lbdb_destroy();
            return rc;
        }
    }
    if (options & OPT_S) {
        const size_t used = strlen(g_ctx.call_opt);
        if (used + sizeof(OPT_S_TEXT) >= sizeof(g_ctx.call_opt)) {
            LOG_ERR("%s: not enough space for option [%s]\n", __func__, OPT_S_TEXT);
            return -1;
        }
        cut_text(g_ctx.call_opt + used, sizeof(g_ctx.call_opt) - used, OPT_S_TEXT);
        LOG_DEBUG("%s: added [%s] flag\n", __func__, OPT_S_TEXT);
    }
    g_ctx.init_tm = time(nullptr);
    g_ctx.need_func = need_func;
    return 0;
}

/* ---- connection ---- */

/* Waits for the server's socket. A server that hangs holds the agent up; once a quit signal has come, it gets a last,
   bounded time in all. 0 ready, or an errno value. */
static int wait_for_server(short events, int64_t deadline) noexcept
{
    for (;;) {
        if (g_quit && g_ctx.quit_deadline == 0)
            g_ctx.quit_deadline = mono_ms() + QUIT_GRACE_MS;
        if (g_quit)
            deadline = std::min(deadline, g_ctx.quit_deadline);
        const int64_t left = deadline == NO_DEADLINE ? 0 : std::max<int64_t>(deadline - mono_ms(), 0);
        timespec limit{};
        ms2timespec(left, &limit);
        const int rc = poll_with_signals(g_ctx.redis->fd, events, deadline == NO_DEADLINE ? nullptr : &limit);
        if (rc > 0)
            return 0;
        if (rc == 0)
            return g_quit ? EINTR : ETIMEDOUT;
        if (errno != EINTR)
            return errno;
    }
}

/* Reads until one whole answer is there. The library's own loop would wait without the signals. */
static redisReply* await_reply() noexcept
{
    redisContext* c = g_ctx.redis;
    int is_sent = 0;
    size_t received = 0;
    void* reply = nullptr;
    while (redisReaderGetReply(c->reader, &reply) == REDIS_OK) {
        if (reply)
            return static_cast<redisReply*>(reply);
        if (!is_sent && redisBufferWrite(c, &is_sent) != REDIS_OK)
            break;
        if (wait_for_server(static_cast<short>(is_sent ? POLLIN : POLLIN | POLLOUT), NO_DEADLINE) != 0)
            break;
        const size_t before = c->reader->len;
        if (redisBufferRead(c) != REDIS_OK)
            break;
        received += c->reader->len - before;
        if (received > MAX_REPLY_BYTES)
            break;
    }
    /* Nothing can be told from the stream any more: all later commands fail at once. */
    if (!c->err)
        c->err = REDIS_ERR_OTHER;
    return nullptr;
}

/* What has come before a command is sent answers none, and would shift every later answer by one. Behind the last
   answer it is seen at once; what came later on is looked for, which costs a call, when an answer was not the expected
   one. False: the connection is lost. */
static bool drop_unasked() noexcept
{
    redisContext* c = g_ctx.redis;
    size_t ndropped = 0;
    if (!c->err && g_ctx.is_in_doubt)
        (void)redisBufferRead(c); /* does not wait; a failure stands in err */
    while (!c->err && c->reader->pos < c->reader->len) {
        void* raw = nullptr;
        const int rc = redisReaderGetReply(c->reader, &raw);
        const reply_ptr unasked(static_cast<redisReply*>(raw));
        if (rc == REDIS_OK && unasked)
            ++ndropped;
        else
            c->err = REDIS_ERR_OTHER; /* where a part of an answer ends, the next one's begin cannot be told */
    }
    if (ndropped > 0)
        LOG_WARN("%s: %zu answers that nobody has asked for\n", __func__, ndropped);
    return !c->err;
}

/* One round trip. Null: the connection is lost. */
template <class... Args>
static reply_ptr command(const char* format, Args... args) noexcept
{
    if (!drop_unasked() || redisAppendCommand(g_ctx.redis, format, args...) != REDIS_OK)
        return nullptr; /* the library would keep the command, and all later ones */
    return reply_ptr(await_reply());
}

/* The server says an array of one integer, or that integer alone. Complaints about the array go to standard error. */
int check_script_exists(const char* sha1) noexcept
{
    ASSERT(g_ctx.redis);
    const reply_ptr reply = command("script exists %s", sha1);
    if (!reply) {
        if (!g_quit)
            LOG_ERR("%s: NULL as reply\n", __func__);
        return -1;
    }
    int rc = EINVAL;
    switch (reply->type) {
    case REDIS_REPLY_ARRAY:
        if (reply->elements != 1)
            log_trouble("%s: more than 1 element (%zu) returned\n", __func__, reply->elements);
        else if (reply->element[0]->type != REDIS_REPLY_INTEGER)
            log_trouble("%s: expected integer, got %d\n", __func__, reply->element[0]->type);
        else
            rc = reply->element[0]->integer == 1 ? 0 : RC_NO_SCRIPT;
        break;
    case REDIS_REPLY_INTEGER:
        if (reply->integer == 0)
            LOG_ERR("%s: no such script: %s\n", __func__, sha1);
        rc = reply->integer == 1 ? 0 : RC_NO_SCRIPT;
        break;
    case REDIS_REPLY_ERROR:
        LOG_ERR("%s: Redis error: %s\n", __func__, reply->str);
        rc = -1;
        break;
    default:
        LOG_ERR("%s: not expecting reply type=%d\n", __func__, reply->type);
    }
    LOG_DEBUG("%s: %s, rc=%d\n", __func__, sha1, rc);
    return rc;
}

/* More elements than any script has use for: the announcement alone would reserve memory for all of them. */
constexpr size_t MAX_ARRAY = 4096;

/* Written by open_connection. */
static redisReplyObjectFunctions g_library_fns;
static redisReplyObjectFunctions g_bounded_fns;

/* The count's type differs between the library's versions. */
template <class Count>
static void* create_bounded_array(const redisReadTask* task, Count elements) noexcept
{
    return static_cast<size_t>(elements) <= MAX_ARRAY ? g_library_fns.createArray(task, elements) : nullptr;
}

/* Non-blocking, so that the wait for it lets the signals in. A vanished host is told by probes and by data that is
   never acknowledged. */
static int open_connection(const char* fn, const char* host, int port, timeval tmout) noexcept
{
    g_ctx.redis = redisConnectNonBlock(host, port);
    if (!g_ctx.redis) {
        LOG_ERR("%s: redisConnectWithTimeout: cannot allocate context\n", fn);
        return -1;
    }
    if (g_ctx.redis->err) {
        LOG_ERR("%s: redisConnectWithTimeout ERROR(%d): %s\n", fn, g_ctx.redis->err, g_ctx.redis->errstr);
        return -1;
    }
    int err = wait_for_server(POLLOUT, mono_ms() + tmout.tv_sec * int64_t{1000} + tmout.tv_usec / 1000);
    socklen_t len = sizeof(err);
    if (err == 0 && getsockopt(g_ctx.redis->fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err != 0) {
        if (!g_quit)
            LOG_ERR("%s: redisConnectWithTimeout ERROR(%d): %s\n", fn, REDIS_ERR_IO, strerror(err));
        return -1;
    }
    (void)fcntl(g_ctx.redis->fd, F_SETFD, FD_CLOEXEC);
    (void)set_keepalive(g_ctx.redis->fd, SERVER_KEEPALIVE);
    (void)set_user_timeout(g_ctx.redis->fd, SERVER_GONE_MS);
    redisReader* reader = g_ctx.redis->reader;
    g_library_fns = g_bounded_fns = *reader->fn;
    g_bounded_fns.createArray = create_bounded_array;
    reader->fn = &g_bounded_fns;
    LOG_INFO("%s: connected to %s:%d\n", fn, host, port);
    return 0;
}

/* Once in a life: what is lost later stays lost, and every registration says so. A connect that a quit signal has cut
   short is no failure, and not told as one. */
int lbdb_connect(const char* host, int port, timeval tmout) noexcept
{
    ASSERT(!g_ctx.redis && g_ctx.init_tm > 0);
    cut_text(g_conn.host, sizeof(g_conn.host), host);
    g_conn.port = port;
    g_conn.tmout = tmout;
    int rc = open_connection(__func__, host, port, tmout);
    /* A server that was restarted has forgotten its scripts: better told at the start than by every registration. */
    for (const script_file& s : SCRIPTS) {
        if (rc != 0 || !(g_ctx.need_func & s.func))
            continue;
        ASSERT_AS(s.sha1[0], s.assertion);
        rc = check_script_exists(s.sha1);
    }
    if (rc != 0) {
        if (!g_quit)
            LOG_ERR("%s: failed for %s:%d\n", __func__, host, port);
        lbdb_disconnect();
        return rc;
    }
    LOG_DEBUG("%s: OK, rc=%d\n", __func__, rc);
    return 0;
}

/* Also for a connection that was never whole. */
void lbdb_disconnect() noexcept
{
    if (!g_ctx.redis)
        return;
    redisFree(g_ctx.redis);
    g_ctx.redis = nullptr;
    LOG_INFO("%s: disconnected from %s:%d\n", __func__, g_conn.host, g_conn.port);
}

void lbdb_destroy() noexcept
{
    lbdb_disconnect();
    g_ctx = lbdb_ctx{};
    g_conn = lbdb_cfg{};
}

/* ---- registration ---- */

/* A reply of exactly cap characters fits: the caller's buffer has one more for the NUL. */
static int copy_reply(const char* fn, const redisReply* reply, char* buf, size_t cap) noexcept
{
    const auto len = static_cast<size_t>(reply->len);
    if (len > cap) {
        LOG_ERR("%s: reply is bigger than buffer: %zu/%zu\n", fn, len, cap);
        return ERANGE;
    }
    memcpy(buf, reply->str, len);
    buf[len] = '\0';
    return 0;
}

/* A script answers with one text, bare or as the only element of an array. A status or an error is none. */
int reply_to_str(const redisReply* reply, char* buf, size_t cap) noexcept
{
    switch (reply->type) {
    case REDIS_REPLY_STRING:
        return copy_reply(__func__, reply, buf, cap);
    case REDIS_REPLY_ARRAY:
        if (reply->elements != 1) {
            LOG_ERR("%s: more than 1 element (%zu) returned\n", __func__, reply->elements);
            return EINVAL;
        }
        if (reply->element[0]->type != REDIS_REPLY_STRING) {
            LOG_ERR("%s: expected string, got %d\n", __func__, reply->element[0]->type);
            return EINVAL;
        }
        return copy_reply(__func__, reply->element[0], buf, cap);
    case REDIS_REPLY_STATUS:
        LOG_ERR("%s: Redis status: %s\n", __func__, reply->str);
        return -1;
    case REDIS_REPLY_ERROR:
        LOG_ERR("%s: Redis error: %s\n", __func__, reply->str);
        return -1;
    default:
        LOG_ERR("%s: not expecting reply type=%d\n", __func__, reply->type);
        return EINVAL;
    }
}

/* The answer repeats the key, behind three characters that tell what was done: another key means that the script has
   failed, or that the answer belongs to another command. */
int lbdb_add_segurl(const char* id, const char* url, long expiry) noexcept
{
    static std::array<char, REPLY_CAP> text;

    ASSERT(g_ctx.need_func & LBQ_FL_ADD);
    ASSERT(g_ctx.redis && g_ctx.add_sha1[0]);
    LOG_DEBUG("evalsha %s 1 %s %s %ld\n", g_ctx.add_sha1, id, url, expiry);
    const reply_ptr reply = command("evalsha %s 1 %s %s %ld", g_ctx.add_sha1, id, url, expiry);
    if (!reply) {
        LOG_ERR("%s: NULL as reply\n", __func__);
        return -1;
    }
    text.fill('\0');
    g_ctx.is_in_doubt = true;
    if (reply_to_str(reply.get(), text.data(), text.size() - 1) != 0) {
        LOG_ERR("%s: failed: %.*s\n", __func__, REPLY_SHOWN, text.data());
        return -1;
    }
    if (strlen(text.data()) < REPLY_PREFIX_LEN || strcmp(text.data() + REPLY_PREFIX_LEN, id) != 0) {
        LOG_ERR("%s: expected %s, got [%s]\n", __func__, id, text.data());
        return -1;
    }
    g_ctx.is_in_doubt = false;
    LOG_DEBUG("%s: result=[%s]\n", __func__, text.data());
    return text[0] == '#' && strstr(text.data(), "#err: ") ? -1 : 0;
}
