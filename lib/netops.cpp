/* Sockets: what an address or a port may look like, options, and the one function that opens all kinds of them,
   open_socket. Its caller says what he wants in a socket_spec and finds there what has become of it.
   The difficulty is names: a look-up blocks the whole process, so that numeric addresses never get near it, and a name
   server that does not answer is left alone for a while. */
#include "netops.h"

#include "guard.h"
#include "log.h"
#include "netops_internal.h"
#include "signals.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t ENDPOINT_MAX = 128;
constexpr size_t MIN_HOST_LEN = 7; /* "1.2.3.4": rejects bare numbers and fragments */

/* ---- syntax ---- */

/* What strtol takes to its end: a number where a host is expected is a fault of whoever wrote it, not a name. */
bool is_decimal(const char* s) noexcept
{
    char* end = nullptr;
    if (!*s)
        return false;
    (void)strtol(s, &end, 10);
    return *end == '\0';
}

bool split_host_port(std::string_view text, std::string_view* host, std::string_view* port) noexcept
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    *host = text.substr(0, colon);
    *port = text.substr(colon + 1);
    return true;
}

/* Digits alone: what stands behind the last ':' of an IPv6 address may be anything. */
bool ends_with_port(const char* s) noexcept
{
    std::string_view host;
    std::string_view port;
    return split_host_port(s, &host, &port) && !port.empty() &&
           port.find_first_not_of("0123456789") == std::string_view::npos;
}

/* What a socket can be opened on: digits alone that make 1..65535, or exactly "0" (any free one). */
static bool is_port(const char* text) noexcept
{
    const std::optional<uint16_t> port = parse_num<uint16_t>(text);
    return port && (*port != 0 || strcmp(text, "0") == 0);
}

/* Looser than is_port, as the configuration always was: what follows the number is not looked at. */
bool is_valid_port(const char* text) noexcept
{
    const int port = atoi(text); // NOLINT(cert-err34-c): anything but a number is 0, which is refused
    return port >= 1 && port <= 65535;
}

struct af_word {
    const char* word;
    int af;
};

/* The words of a configuration for a family; the last ones leave the choice to the address. */
static const af_word AF_WORDS[] = {
    {"inet4", AF_INET},    {"inet", AF_INET},      {"ipv4", AF_INET},      {"af_inet", AF_INET},   {"pf_inet", AF_INET},
    {"inet6", AF_INET6},   {"ipv6", AF_INET6},     {"af_inet6", AF_INET6}, {"pf_inet6", AF_INET6}, {"any", AF_UNSPEC},
    {"unspec", AF_UNSPEC}, {"anyaddr", AF_UNSPEC}, {"all", AF_UNSPEC},
};

/* The word stands in a configuration: an unknown one is told, and the caller refuses the file. */
int name2af(const char* text, int* af) noexcept
{
    for (const af_word& w : AF_WORDS) {
        if (ci_equal(text, w.word)) {
            *af = w.af;
            return 0;
        }
    }
    LOG_ERR("%s: unsupported address family [%s] in configuration.\n", __func__, text);
    return -1;
}

const char* af2name(int af) noexcept
{
    switch (af) {
    case AF_INET:
        return "inet4";
    case AF_INET6:
        return "inet6";
    default:
        return "any";
    }
}

/* A numeric text: asking for names would block, and a client's address is what is wanted. */
const char* saddr_str(const sockaddr_storage* ss, socklen_t len, char* buf, size_t size) noexcept
{
    std::array<char, INET6_ADDRSTRLEN> host{};
    (void)len;
    if (ss->ss_family == AF_INET) {
        const auto* sin = reinterpret_cast<const sockaddr_in*>(ss);
        inet_ntop(AF_INET, &sin->sin_addr, host.data(), host.size());
        snprintf(buf, size, "%s:%d", host.data(), ntohs(sin->sin_port));
    } else if (ss->ss_family == AF_INET6) {
        const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(ss);
        inet_ntop(AF_INET6, &sin6->sin6_addr, host.data(), host.size());
        snprintf(buf, size, "[%s]:%d", host.data(), ntohs(sin6->sin6_port));
    } else {
        snprintf(buf, size, "%s", ss->ss_family == AF_UNIX ? "local" : "?");
    }
    return buf;
}

/* ---- host:port text ---- */

/* The first address that this host can make a socket for: a family without support is passed over. */
int mk_sockaddr(const char* text, int socktype, int proto, sockaddr_storage* ss, socklen_t* len) noexcept
{
    ASSERT(socktype == SOCK_STREAM || socktype == SOCK_DGRAM);
    LOG_DEBUG("%s: %s(%d) address for [%s]\n", __func__, socktype == SOCK_STREAM ? "STREAM" : "DGRAM", proto, text);
    std::string_view host_part;
    std::string_view port_part;
    if (!split_host_port(std::string_view(text).substr(0, ENDPOINT_MAX - 1), &host_part, &port_part)) {
        LOG_ERR("%s: invalid address/port: %s\n", __func__, text);
        return EINVAL;
    }
    std::array<char, ENDPOINT_MAX> host{};
    std::array<char, ENDPOINT_MAX> port{};
    cut_text(host.data(), host.size(), host_part);
    cut_text(port.data(), port.size(), port_part);
    if (is_decimal(host.data()) || host_part.size() < MIN_HOST_LEN) {
        LOG_ERR("%s: cannot accept plain number [%s] as IP address\n", __func__, host.data());
        return EINVAL;
    }
    if (!is_port(port.data())) {
        LOG_ERR("%s: port must be plain decimal number [%s]\n", __func__, port.data());
        return EINVAL;
    }
    if (host_part.front() == '[' && host_part.back() == ']') /* as an IPv6 literal stands before a port */
        cut_text(host.data(), host.size(), host_part.substr(1, host_part.size() - 2));

    addrinfo hints{};
    hints.ai_socktype = socktype;
    hints.ai_protocol = proto;
    addrinfo* list = nullptr;
    if (W_getaddrinfo(__func__, host.data(), port.data(), &hints, &list) != 0)
        return -1;
    const std::unique_ptr<addrinfo, releaser<freeaddrinfo>> owner(list);
    for (const addrinfo* ai = list; ai; ai = ai->ai_next) {
        const int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        LOG_DEBUG("%s: %s af=%s (%d), proto = %d\n", __func__, fd >= 0 ? "OK" : "BAD", af2name(ai->ai_family),
                  ai->ai_family, ai->ai_protocol);
        if (fd < 0)
            continue;
        close(fd);
        memcpy(ss, ai->ai_addr, ai->ai_addrlen);
        *len = ai->ai_addrlen;
        return 0;
    }
    LOG_ERR("%s: failed for [%s]\n", __func__, text);
    return -1;
}

/* ---- socket options ---- */

/* The other flags of the description stay as they are. */
int set_nblock(int fd, bool on) noexcept
{
    const int old = fcntl(fd, F_GETFL);
    const int flags = on ? old | O_NONBLOCK : old & ~O_NONBLOCK;
    if (old == -1 || fcntl(fd, F_SETFL, flags) == -1) {
        LOG_ERRNO("%s: fcntl(%d, F_SETFL, %d)", __func__, fd, flags);
        return -1;
    }
    LOG_DEBUG("%s: fd%d set as %sblocking\n", __func__, fd, on ? "non-" : "");
    return 0;
}

/* For a caller whose small writes must not wait for the acknowledgement of the last one. */
int set_tcp_nodelay(int fd, bool on) noexcept
{
    const int value = on;
    if (W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof(value)) != 0)
        return -1;
    LOG_INFO("TCP_NODELAY turned %s for [fd=%d]\n", on ? "ON" : "OFF", fd);
    return 0;
}

static int set_timeval(const char* fn, int fd, int name, long ms) noexcept
{
    const timeval tv = {ms / 1000, (ms % 1000) * 1000};
    return W_setsockopt(fn, fd, SOL_SOCKET, name, &tv, sizeof(tv));
}

int set_rcv_timeout(int fd, long ms) noexcept
{
    return set_timeval(__func__, fd, SO_RCVTIMEO, ms);
}

/* Of a blocking socket; a non-blocking one never waits. */
int set_send_timeout(int fd, long ms) noexcept
{
    return set_timeval(__func__, fd, SO_SNDTIMEO, ms);
}

int set_keepalive(int fd, const keepalive_pace& pace) noexcept
{
    const int on = 1;
    /* The idle time comes last: on a socket that keeps itself alive the kernel then counts from the last byte received.
       */
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) != 0 ||
        W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_KEEPINTVL, &pace.interval_sec, sizeof(int)) != 0 ||
        W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_KEEPCNT, &pace.probes, sizeof(int)) != 0)
        return -1;
    return W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_KEEPIDLE, &pace.idle_sec, sizeof(int));
}

/* Probes stop while data waits for its acknowledgement, so that a keep-alive alone does not tell a vanished peer. */
int set_user_timeout(int fd, unsigned ms) noexcept
{
    return W_setsockopt(__func__, fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &ms, sizeof(ms));
}

/* Asking takes the error away: the next one who asks finds none. */
int socket_error(int fd) noexcept
{
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
        err = errno;
    if (err != 0)
        LOG_ERRNUM(err, "%s(fd%d)", __func__, fd);
    return err;
}

/* An agent that is started again must get its port although connections of the last one are still waiting to end. */
int reuse_and_bind(int fd, const sockaddr_storage* ss, socklen_t len) noexcept
{
    const int on = 1;
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0)
        return -1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on)); /* where the kernel has it */
    if (W_bind(__func__, fd, reinterpret_cast<const sockaddr*>(ss), len) != 0)
        return -1;
    std::array<char, INET6_ADDRSTRLEN + 10> text{};
    LOG_DEBUG("%s: fd=%d %s OK\n", __func__, fd, saddr_str(ss, len, text.data(), text.size()));
    return 0;
}

/* ---- opening ---- */

/* A datagram socket is ready with its address; only a stream has somebody to wait for. */
static int setup_listener(const char* fn, int fd, const sockaddr_storage* ss, socklen_t len,
                          const socket_spec* spec) noexcept
{
    const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(ss);
    if (ss->ss_family == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&sin6->sin6_addr)) {
        /* A listener on :: also takes IPv4 clients. */
        int on = 0;
        socklen_t on_len = sizeof(on);
        if (getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, &on_len) == 0 && !on) {
            LOG_DEBUG("%s: IPV6_V6ONLY for fd=%d is already %s\n", fn, fd, "OFF");
        } else if (on = 0; setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on)) != 0) {
            LOG_ERR("%s: setsockopt IPV6_V6ONLY: %s\n", fn, strerror(errno));
            LOG_WARN("%s: server will not accept IPv4 requests\n", fn);
        }
    }
    if (reuse_and_bind(fd, ss, len) != 0)
        return -1;
    if (spec->socktype != SOCK_STREAM || spec->defer_listen)
        return 0;
    return W_listen(fn, fd, LISTEN_BKLOG);
}

/* In the ordinary case the connect is under way when this returns: its end comes as an event. */
static int setup_client(const char* fn, int fd, const sockaddr_storage* ss, socklen_t len, socket_spec* spec) noexcept
{
    if (spec->socktype == SOCK_DGRAM)
        return spec->writer ? 0 : reuse_and_bind(fd, ss, len);
    if (spec->non_blocking) {
        LOG_DEBUG("%s: non-blocking CONNECT on fd%d\n", fn, fd);
        /* The handshake's last acknowledgement waits for the request that is written when the connection stands, which
           saves a packet; the kernel sends it alone when that takes long. */
        const int sec = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_DEFER_ACCEPT, &sec, sizeof(sec));
    }
    if (W_connect(fn, fd, reinterpret_cast<const sockaddr*>(ss), len) != 0) {
        if (errno != EINPROGRESS)
            return -1;
        spec->async_connect = 1;
    }
    LOG_INFO("%s: %s CONNECT [fd%d]\n", fn, spec->async_connect ? "ASYNC" : "IMMEDIATE", fd);
    return 0;
}

/* One resolved address. The descriptor, or -1 with nothing left open. */
static int open_one(const char* fn, const addrinfo* ai, socket_spec* spec, const char* ifc,
                    ifc_info** ifc_used) noexcept
{
    /* Made non-blocking with the socket itself: one call less than fcntl. */
    const int type = ai->ai_socktype | (spec->non_blocking ? SOCK_NONBLOCK : 0);
    const int fd = W_socket(fn, ai->ai_family, type, ai->ai_protocol);
    if (fd < 0)
        return -1;
    scope_guard close_fd([fn, fd] { W_close(fn, fd); });
    if (spec->non_blocking)
        LOG_DEBUG("%s: fd%d set as %sblocking\n", "set_nblock", fd, "non-");

    sockaddr_storage ss{};
    memcpy(&ss, ai->ai_addr, ai->ai_addrlen);
    spec->family = ai->ai_family;
    spec->async_connect = 0;
    spec->multicast = spec->multicast || is_mcast_addr(&ss);
    int rc = 0;
    if (spec->multicast)
        rc = setup_mcast(fn, fd, &ss, ai->ai_addrlen, spec, ifc, ifc_used);
    else if (spec->passive)
        rc = setup_listener(fn, fd, &ss, ai->ai_addrlen, spec);
    else
        rc = setup_client(fn, fd, &ss, ai->ai_addrlen, spec);
    if (rc != 0)
        return -1;
    spec->addr_ss = ss;
    spec->addr_len = ai->ai_addrlen;
    close_fd.release();
    return fd;
}

/* The one host that a source-specific group is heard from. The group is of the same family, or nothing would ever
   come. */
static int parse_ssm_source(const char* fn, const char* source, socket_spec* spec) noexcept
{
    LOG_DEBUG("%s: SSM source: %s\n", fn, source);
    std::array<char, ENDPOINT_MAX> text{};
    /* The port only makes it parse. An IPv6 source holds colons of its own: it has a port only behind its bracket. */
    const char* bracket = strchr(source, ']');
    const bool has_port = ends_with_port(bracket ? bracket : source);
    snprintf(text.data(), text.size(), "%s%s", source, has_port ? "" : ":111");
    if (mk_sockaddr(text.data(), SOCK_DGRAM, 0, &spec->src_ss, &spec->src_len) != 0) {
        LOG_ERR("%s: invalid SSM source: %s\n", fn, source);
        return -1;
    }
    if (spec->family != 0 && spec->family != spec->src_ss.ss_family) {
        LOG_ERR("%s: SMM src/addr family mismatch: %d/%d\n", fn, spec->src_ss.ss_family, spec->family);
        return -1;
    }
    return 0;
}

/* ---- names ---- */

constexpr long SLOW_LOOKUP_MS = 500;
constexpr long CLOSED_FACTOR = 10; /* so that a name server that never answers costs a tenth of the time at most */

/* Written by resolve. */
static long g_names_closed_until = 0; /* ms of CLOCK_MONOTONIC; 0 = sources are looked up */

/* A dotted address with a plain port needs no resolver at all: *ai, over *sin, is what it would find. */
static bool numeric4(const char* address, const char* port, const socket_spec* spec, sockaddr_in* sin,
                     addrinfo* ai) noexcept
{
    const std::optional<uint16_t> number = port ? parse_num<uint16_t>(port) : std::nullopt;
    if (!number || (spec->family != AF_UNSPEC && spec->family != AF_INET) ||
        inet_pton(AF_INET, address, &sin->sin_addr) != 1)
        return false;
    sin->sin_family = AF_INET;
    sin->sin_port = htons(*number);
    ai->ai_family = AF_INET;
    ai->ai_socktype = spec->socktype;
    ai->ai_protocol = spec->socktype == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP;
    ai->ai_addr = reinterpret_cast<sockaddr*>(sin);
    ai->ai_addrlen = sizeof(*sin);
    return true;
}

/* A numeric address is resolved without files and name servers. The name of a source takes the long road, and a look-up
   blocks everything else: one that took long and was in vain closes the road for all names, whose servers are the
   same. */
static addrinfo* resolve(const char* fn, const char* address, const char* port, const socket_spec* spec) noexcept
{
    addrinfo hints{};
    hints.ai_family = spec->family;
    hints.ai_socktype = spec->socktype;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    if (getaddrinfo(address, port, &hints, &list) == 0)
        return list;
    hints.ai_flags = 0;
    if (spec->socktype != SOCK_STREAM || spec->passive)
        return W_getaddrinfo(fn, address, port, &hints, &list) == 0 ? list : nullptr;

    deliver_pending_signals(); /* the loop may not have looked for a while, and nothing ends the wait below */
    if (g_quit) {
        LOG_INFO("%s: [%s] is not looked up: a quit signal has come\n", fn, address);
        return nullptr;
    }
    const long start = mono_ms();
    if (start < g_names_closed_until) {
        LOG_ERR("%s: [%s] is not looked up: names are refused for %ld ms more\n", fn, address,
                g_names_closed_until - start);
        return nullptr;
    }
    if (g_names_closed_until > 0)
        LOG_WARN("%s: sources given by name are looked up again\n", fn);
    g_names_closed_until = 0;
    if (W_getaddrinfo(fn, address, port, &hints, &list) == 0)
        return list;
    const long end = mono_ms();
    if (end - start > SLOW_LOOKUP_MS) {
        g_names_closed_until = end + CLOSED_FACTOR * (end - start);
        LOG_WARN("%s: looking up [%s] took %ld ms in vain: sources given by name are refused for %ld ms\n", fn, address,
                 end - start, CLOSED_FACTOR * (end - start));
    }
    return nullptr;
}

/* Tries the addresses of a name in the resolver's order and keeps the first that works. A non-blocking connect counts
   as one that does: whether it succeeds comes later, and then there is no second try. */
int open_socket(const char* address, const char* port, const char* ssm_src, socket_spec* spec, const char* ifc,
                ifc_info** ifc_used) noexcept
{
    LOG_DEBUG("%s: %s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", __func__,
              spec->socktype == SOCK_DGRAM ? "UDP" : "TCP", spec->passive ? "LISTENER" : "CLIENT",
              af2name(spec->family), spec->family, address ? address : "all", port ? port : "", ifc ? ifc : "none");
    ASSERT(spec->socktype == SOCK_STREAM || spec->socktype == SOCK_DGRAM);
    if (port && !is_port(port)) {
        LOG_ERR("%s: empty or invalid port [%s]\n", __func__, port);
        return -1;
    }
    if (address && is_decimal(address)) {
        LOG_ERR("%s: cannot accept plain number [%s] as IP address\n", __func__, address);
        return -1;
    }
    spec->is_ssm = ssm_src && spec->socktype == SOCK_DGRAM;
    if (spec->is_ssm && parse_ssm_source(__func__, ssm_src, spec) != 0)
        return -1;
    if (!address)
        address = spec->family == AF_INET6 ? "::" : "0.0.0.0";

    sockaddr_in sin{};
    addrinfo numeric{};
    int fd = -1;
    if (numeric4(address, port, spec, &sin, &numeric)) {
        fd = open_one(__func__, &numeric, spec, ifc, ifc_used);
    } else {
        const std::unique_ptr<addrinfo, releaser<freeaddrinfo>> list(resolve(__func__, address, port, spec));
        for (const addrinfo* ai = list.get(); ai && fd < 0; ai = ai->ai_next)
            fd = open_one(__func__, ai, spec, ifc, ifc_used);
    }
    if (fd < 0)
        return -1;
    if (spec->async_connect) {
        LOG_DEBUG("%s: connection in progress for fd%d\n", __func__, fd);
        errno = EINPROGRESS;
    } else {
        LOG_DEBUG("%s: %s %s socket fd=[%d]\n", __func__, spec->passive ? "SERVER" : "CLIENT",
                  spec->multicast ? "multicast" : "unicast", fd);
    }
    return fd;
}

/* ---- listeners ---- */

/* address null: any. */
static int open_passive(const char* address, const char* port, int family, int socktype, uint32_t flags) noexcept
{
    socket_spec spec{};
    spec.passive = 1;
    spec.non_blocking = flags & SOCK_NONBLOCK ? 1 : 0;
    spec.family = family;
    spec.socktype = socktype;
    return open_socket(address, port, nullptr, &spec, nullptr, nullptr);
}

/* By way of the address as text, so that there is one road to a socket. */
static int open_on_ifc(const char* fn, const ifc_info* ifc, const char* port, int socktype, uint32_t flags) noexcept
{
    if (!is_port(port)) {
        LOG_ERR("%s: invalid port number: %s\n", fn, port);
        return -1;
    }
    std::array<char, NI_MAXHOST> host{};
    const auto* sa = reinterpret_cast<const sockaddr*>(&ifc->ss);
    const socklen_t len = ifc->ss.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if ((ifc->ss.ss_family != AF_INET && ifc->ss.ss_family != AF_INET6) ||
        getnameinfo(sa, len, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) != 0) {
        LOG_ERR("%s: invalid network family: %d\n", fn, ifc->ss.ss_family);
        return -1;
    }
    return open_passive(host.data(), port, ifc->ss.ss_family, socktype, flags);
}

int open_listener(const ifc_info* ifc, const char* port, uint32_t flags) noexcept
{
    return open_on_ifc(__func__, ifc, port, SOCK_STREAM, flags);
}

int open_udp_listener(const ifc_info* ifc, const char* port) noexcept
{
    return open_on_ifc(__func__, ifc, port, SOCK_DGRAM, 0);
}

int open_anyaddr_listener(int family, const char* port, uint32_t flags) noexcept
{
    if (!is_port(port)) {
        LOG_ERR("%s: invalid port number: %s\n", __func__, port);
        return -1;
    }
    if (family != AF_INET && family != AF_INET6 && family != AF_UNSPEC) {
        LOG_ERR("%s: invalid network family: %d\n", __func__, family);
        return -1;
    }
    return open_passive(nullptr, port, family, SOCK_STREAM, flags);
}

/* The path of a listener that has ended is still there, and would refuse the new one. Like every path here it is
   trusted: the configuration names it. */
static int listen_on_path(const char* fn, const char* path) noexcept
{
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    if (!copy_text(sun.sun_path, sizeof(sun.sun_path), path))
        return -1;
    if (unlink(path) != 0 && errno != ENOENT) {
        LOG_ERRNO("%s: unlink", fn);
        return -1;
    }
    const int fd = W_socket(fn, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    scope_guard close_fd([fn, fd] { W_close(fn, fd); });
    if (W_bind(fn, fd, reinterpret_cast<const sockaddr*>(&sun), sizeof(sun)) != 0)
        return -1;
    if (W_listen(fn, fd, LISTEN_BKLOG) != 0) {
        (void)unlink(path);
        return -1;
    }
    close_fd.release();
    return fd;
}

int open_domain_listener(const char* path) noexcept
{
    const int fd = listen_on_path(__func__, path);
    if (fd < 0)
        LOG_ERR("%s: failed for path=[%s]\n", __func__, path);
    else
        LOG_DEBUG("%s: fd=%d is listening on [%s]\n", __func__, fd, path);
    return fd;
}
