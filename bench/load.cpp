/* Places HTTP requests, so many at a time, and says how long the answers took.

   load PORT WINDOW COUNT TARGET [FILE]     TARGET and FILE hold %d for the request's number; a COUNT that begins
                                            with "+" closes each connection with the answer's first bytes

   Prints seconds until the last answer, answers other than 2xx, and the p50 and p99 of an answer in microseconds; with
   FILE (and a window of 1) also the p50 and p99 until that file exists. A request's connection is read to its end: for
   a proxy that is the body's end, for an agent its answer. */
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

using timer = std::chrono::steady_clock;

struct client {
    int fd;
    bool is_begun;
    timer::time_point start;
};

int g_loop;
sockaddr_in g_agent;
std::string g_target;
int g_next;
int g_bad;
bool g_leaves_early;

std::string numbered(std::string text, int n)
{
    for (size_t at = 0; (at = text.find("%d", at)) != std::string::npos;)
        text.replace(at, 2, std::to_string(n));
    return text;
}

void begin(client* c)
{
    char head[1024];
    const std::string target = numbered(g_target, g_next);
    ++g_next;
    const int n = snprintf(head, sizeof(head),
                           "GET %s HTTP/1.1\r\nHost: agent.example.net\r\nConnection: close\r\n\r\n", target.c_str());
    c->start = timer::now();
    c->is_begun = false;
    c->fd = socket(AF_INET, SOCK_STREAM, 0);
    if (c->fd < 0 || connect(c->fd, reinterpret_cast<sockaddr*>(&g_agent), sizeof(g_agent)) != 0 ||
        send(c->fd, head, static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
        perror("load");
        exit(1);
    }
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.ptr = c;
    epoll_ctl(g_loop, EPOLL_CTL_ADD, c->fd, &e);
}

/* True at the end of the answer. */
bool take(client* c)
{
    static char buf[1 << 20];
    const ssize_t n = recv(c->fd, buf, sizeof(buf), 0);
    if (n > 0 && !c->is_begun) {
        c->is_begun = true;
        g_bad += n < 12 || buf[9] != '2';
    }
    if (n > 0 && !g_leaves_early)
        return false;
    g_bad += !c->is_begun;
    close(c->fd);
    return true;
}

void print_times(std::vector<double>* times)
{
    if (times->empty())
        return;
    std::sort(times->begin(), times->end());
    printf(" %.1f %.1f", (*times)[times->size() / 2], (*times)[times->size() * 99 / 100]);
}

double since(timer::time_point start)
{
    return std::chrono::duration<double, std::micro>(timer::now() - start).count();
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 5 && argc != 6) {
        fprintf(stderr, "usage: load PORT WINDOW COUNT TARGET [FILE]\n");
        return 2;
    }
    g_agent.sin_family = AF_INET;
    g_agent.sin_port = htons(static_cast<uint16_t>(atoi(argv[1])));
    g_agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int count = atoi(argv[3]);
    g_leaves_early = argv[3][0] == '+';
    g_target = argv[4];
    g_loop = epoll_create1(0);
    std::vector<client> clients(static_cast<size_t>(std::min(atoi(argv[2]), count)));
    std::vector<double> times;
    std::vector<double> stored;
    const auto start = timer::now();
    for (client& c : clients)
        begin(&c);
    while (static_cast<int>(times.size()) < count) {
        epoll_event events[64];
        const int n = epoll_wait(g_loop, events, 64, 20000);
        if (n == 0) {
            fprintf(stderr, "load: no answer for 20 s\n");
            return 1;
        }
        for (int i = 0; i < n; ++i) {
            auto* c = static_cast<client*>(events[i].data.ptr);
            if (!take(c))
                continue;
            times.push_back(since(c->start));
            if (argc == 6) {
                const std::string file = numbered(argv[5], g_next - 1);
                while (access(file.c_str(), F_OK) != 0) {
                }
                stored.push_back(since(c->start));
            }
            if (g_next < count)
                begin(c);
        }
    }
    printf("%.6f %d", since(start) / 1e6, g_bad);
    print_times(&times);
    print_times(&stored);
    printf("\n");
    return 0;
}
