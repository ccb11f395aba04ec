/* Processes and their sockets, read from /proc. What may not be seen is left out. */
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

struct rui_cfg;

[[nodiscard]] std::filesystem::path proc_of(pid_t pid);
[[nodiscard]] std::string first_line(const std::filesystem::path& path);
/* Every process of this host. */
[[nodiscard]] std::vector<pid_t> all_pids();
[[nodiscard]] std::string name_of(pid_t pid);
[[nodiscard]] bool is_agent(pid_t pid);
/* When it began, by the wall clock of now; the epoch if it is gone. */
[[nodiscard]] time_t start_of(pid_t pid);

/* Whether a signal that came now would be taken at once, not held up. False also of a process that is gone. */
[[nodiscard]] bool takes_signal(pid_t pid, int signo);

/* An open descriptor of a process. */
struct descriptor {
    std::string number;
    std::string target; /* "socket:[4711]"; of a file its path, with " (deleted)" behind that of a removed one */
};
/* None if they may not be seen; empty when the process has ended. */
[[nodiscard]] std::optional<std::vector<descriptor>> descriptors_of(pid_t pid);
/* The inodes of the sockets among them. */
[[nodiscard]] std::set<ino_t> sockets_among(const std::vector<descriptor>& fds);
/* Of a process, as far as they may be seen. */
[[nodiscard]] std::set<ino_t> sockets_of(pid_t pid);
/* The inodes of what the epoll instances among them watch. */
[[nodiscard]] std::set<ino_t> watched_among(pid_t pid, const std::vector<descriptor>& fds);

struct net_socket {
    enum kind_of { STREAM, DATAGRAM, PATH } kind = STREAM;
    std::string host; /* numeric; of a PATH the path */
    unsigned port = 0;
    std::string peer_host;
    unsigned peer_port = 0;
    bool is_listening = false;
    bool is_connected = false; /* of a STREAM: neither side has ended it */
    bool is_six = false;       /* an IPv6 socket, whatever its addresses */
    unsigned long waiting = 0; /* of a listening STREAM: clients that the process has not taken yet */
    unsigned long dropped = 0; /* of a DATAGRAM: what found its receive buffer full */
    ino_t inode = 0;

    [[nodiscard]] std::string place() const; /* "127.0.0.1:8020", "[::1]:8020", or the path */
    [[nodiscard]] std::string peer() const;
};

/* The sockets in the network namespace of a process, whosever they are. LISTENING leaves the connections out, of which
   there may be very many. */
enum class socket_choice { LISTENING, ALL };
[[nodiscard]] std::vector<net_socket> net_sockets(pid_t pid, socket_choice choice);
/* What listens in the network namespaces that were looked at, by their inodes. To read one may take 10 ms, for the
   kernel walks over all of the host's connections; the processes of a host share one mostly. */
using listener_tables = std::map<ino_t, std::vector<net_socket>>;
/* The listening ones and channels that are the process's own. Adds its namespace to `known`. */
[[nodiscard]] std::vector<net_socket> own_listeners(pid_t pid, listener_tables* known);

/* Where a listener or a channel will be found. */
struct listening_place {
    net_socket::kind_of kind = net_socket::STREAM;
    std::string host; /* numeric, empty: every address; of a PATH the path */
    unsigned port = 0;

    /* Whether the socket takes what comes to this place, or a part of it. */
    [[nodiscard]] bool is_served_by(const net_socket& s) const;
    [[nodiscard]] bool meets(const listening_place& other) const;
    [[nodiscard]] std::string text() const;
};
[[nodiscard]] std::vector<listening_place> places_of(const rui_cfg& cfg);

/* The processes that listen there, as far as their descriptors may be seen. */
[[nodiscard]] std::vector<pid_t> who_listens(const listening_place& place);
