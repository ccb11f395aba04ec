/* Addresses, interfaces, sockets and multicast membership. Failures are logged and reported as -1; nothing half-made is
   left open. Every socket is close-on-exec. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <net/if.h>
#include <string_view>
#include <sys/socket.h>

constexpr int LISTEN_BKLOG = SOMAXCONN > 128 ? 128 : SOMAXCONN;

/* How to open one socket. */
struct socket_spec {
    unsigned writer : 1;        /* multicast sender */
    unsigned passive : 1;       /* server side */
    unsigned multicast : 1;     /* set when the resolved address is a group */
    unsigned non_blocking : 1;  /* make the socket non-blocking before it connects */
    unsigned async_connect : 1; /* output: the connect is still in progress */
    unsigned defer_listen : 1;  /* bind a stream socket, do not listen yet */
    int family;                 /* AF_INET, AF_INET6 or 0; updated to the one used */
    int socktype;               /* SOCK_STREAM or SOCK_DGRAM */
    sockaddr_storage addr_ss;   /* output: the address opened */
    socklen_t addr_len;
    bool is_ssm; /* source-specific multicast reader */
    sockaddr_storage src_ss;
    socklen_t src_len;
};

struct ifc_info {
    uint32_t idx;
    char name[IFNAMSIZ];
    sockaddr_storage ss; /* an address of the interface; family 0 when not known */
};

/* See socket_spec. address null = any; port decimal text; ssm_src null unless source-specific; ifc (name or address)
   for multicast; *ifc_used (may be null) receives the interface record used, owned by the caller (free). Descriptor or
   -1; a connect in progress is success with errno EINPROGRESS. */
[[nodiscard]] int open_socket(const char* address, const char* port, const char* ssm_src, socket_spec* spec,
                              const char* ifc, ifc_info** ifc_used) noexcept;
/* Listeners: on an interface's address, on any address (AF_UNSPEC: of IPv4), for datagrams, on a path, whose old socket
   goes. port is decimal text, the only flag SOCK_NONBLOCK. Descriptor or -1. */
[[nodiscard]] int open_listener(const ifc_info* ifc, const char* port, uint32_t flags) noexcept;
[[nodiscard]] int open_anyaddr_listener(int family, const char* port, uint32_t flags) noexcept;
[[nodiscard]] int open_udp_listener(const ifc_info* ifc, const char* port) noexcept;
[[nodiscard]] int open_domain_listener(const char* path) noexcept;

/* Whether a configured interface means any of them: no text, "all" or "any"; _ifc takes the any-addresses as well. */
[[nodiscard]] bool is_any_name(std::string_view ifc) noexcept;
[[nodiscard]] bool is_any_ifc(std::string_view ifc) noexcept;
/* An interface by name or address; null when there is none (logged). Released with free(). */
[[nodiscard]] ifc_info* get_ifc_info(int family, const char* text) noexcept;
/* Family of a configuration word. 0 and *af, or -1 (logged). */
[[nodiscard]] int name2af(const char* text, int* af) noexcept;
[[nodiscard]] const char* af2name(int af) noexcept; /* "inet4", "inet6", "any" */

/* Cuts text at its last ':'; brackets around the host stay. False, and nothing set, when there is none. */
[[nodiscard]] bool split_host_port(std::string_view text, std::string_view* host, std::string_view* port) noexcept;
[[nodiscard]] bool is_valid_port(const char* text) noexcept; /* the number at the start of text is 1..65535 */

/* Options of a socket. 0, or -1 (logged). */
int set_tcp_nodelay(int fd, bool on) noexcept;
int set_send_timeout(int fd, long ms) noexcept; /* of a blocking one */
struct keepalive_pace {
    int idle_sec;     /* without a byte before the first probe */
    int interval_sec; /* between probes */
    int probes;       /* unanswered ones that end the connection */
};
int set_keepalive(int fd, const keepalive_pace& pace) noexcept;
/* Data that the peer's host does not acknowledge for so long end the connection. */
int set_user_timeout(int fd, unsigned ms) noexcept;
/* The pending SO_ERROR, logged when it is non-zero. */
[[nodiscard]] int socket_error(int fd) noexcept;

/* "address:port" of a socket address, written into and returned as buf. */
const char* saddr_str(const sockaddr_storage* ss, socklen_t len, char* buf, size_t size) noexcept;

/* ---- offered, called in this room only ---- */

/* host:port text to an address. 0; EINVAL bad syntax; -1 not resolved (logged). */
[[nodiscard]] int mk_sockaddr(const char* text, int socktype, int proto, sockaddr_storage* ss, socklen_t* len) noexcept;
[[nodiscard]] bool is_decimal(const char* s) noexcept; /* a sign is accepted */
[[nodiscard]] bool ends_with_port(const char* s) noexcept;
/* What stands for any interface; null without memory. Released with free(). */
[[nodiscard]] ifc_info* any_ifc_info(int family) noexcept;
/* Make a socket a member of a group on one interface. 0, or -1, or EINVAL as below (logged). */
[[nodiscard]] int mcast_join(int fd, const sockaddr_storage* group, const ifc_info* ifc) noexcept;
[[nodiscard]] int ssm_join(int fd, const sockaddr_storage* src, const sockaddr_storage* group,
                           const ifc_info* ifc) noexcept;

/* ---- offered, not called here ---- */

/* Membership by the options of the group's family instead of those for all families; they have none for a source of
   IPv6 (EINVAL). For kernels without the others; set at start-up. */
extern bool mcast_by_protocol;
/* End what mcast_join and ssm_join have begun; and options as those above. */
[[nodiscard]] int mcast_leave(int fd, const sockaddr_storage* group, const ifc_info* ifc) noexcept;
[[nodiscard]] int ssm_leave(int fd, const sockaddr_storage* src, const sockaddr_storage* group,
                            const ifc_info* ifc) noexcept;
int set_rcv_timeout(int fd, long ms) noexcept;
int set_nblock(int fd, bool on) noexcept;
