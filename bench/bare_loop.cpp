/* The limit to measure against: a bare epoll loop that makes the system calls of a download agent and nothing else. It
   takes the same orders ("GET /src/http://127.0.0.1:PORT/PATH/dst/NAME"), trusts everything, looks at nothing twice,
   and dies of any failure.

   bare_loop PORT DIR mapped|written */
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

enum kind { LISTENER, CLIENT, SOURCE };

struct record {
    kind what;
    int fd;
    int client;
    int file;
    bool is_sent; /* the GET is out */
    char* map;
    size_t length;
    size_t pos;
    char path[120]; /* of the source */
    char name[120];
};

int g_loop;
std::string g_dir;
bool g_is_mapped;
char g_buf[1 << 20];

[[noreturn]] void die(const char* what)
{
    perror(what);
    exit(1);
}

int must(int rc, const char* what)
{
    if (rc < 0)
        die(what);
    return rc;
}

void watch(int op, record* r, uint32_t events)
{
    epoll_event e{};
    e.events = events;
    e.data.ptr = r;
    must(epoll_ctl(g_loop, op, r->fd, &e), "epoll_ctl");
}

sockaddr_in loopback(int port)
{
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

void take_clients(const record* listener)
{
    for (;;) {
        const int fd = accept4(listener->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        auto* r = static_cast<record*>(calloc(1, sizeof(record)));
        r->what = CLIENT;
        r->fd = fd;
        watch(EPOLL_CTL_ADD, r, EPOLLIN);
    }
}

/* The client's record becomes the task's. */
void take_order(record* r)
{
    char head[1024];
    const ssize_t n = recv(r->fd, head, sizeof(head) - 1, 0);
    if (n <= 0) {
        close(r->fd);
        free(r);
        return;
    }
    head[n] = '\0';
    char* port = strstr(head, "127.0.0.1:");
    char* path = port ? strchr(port, '/') : nullptr;
    char* dst = path ? strstr(path, "/dst/") : nullptr;
    if (!dst) {
        must(static_cast<int>(send(r->fd, "HTTP/1.1 204 No Content\r\n\r\n", 27, MSG_NOSIGNAL)), "send");
        close(r->fd);
        free(r);
        return;
    }
    *dst = '\0';
    *strpbrk(dst + 5, " ?") = '\0';
    snprintf(r->path, sizeof(r->path), "%s", path);
    snprintf(r->name, sizeof(r->name), "%s", dst + 5);
    watch(EPOLL_CTL_DEL, r, 0);
    r->client = r->fd;
    r->what = SOURCE;
    r->fd = must(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    const sockaddr_in sa = loopback(atoi(port + 10));
    if (connect(r->fd, reinterpret_cast<const sockaddr*>(&sa), sizeof(sa)) < 0 && errno != EINPROGRESS)
        die("connect");
    watch(EPOLL_CTL_ADD, r, EPOLLOUT);
}

void send_get(record* r)
{
    char text[512];
    const int n =
        snprintf(text, sizeof(text), "GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", r->path);
    if (write(r->fd, text, static_cast<size_t>(n)) != n)
        die("write");
    r->is_sent = true;
    watch(EPOLL_CTL_MOD, r, EPOLLIN);
}

void finish(record* r)
{
    if (r->map)
        msync(r->map, r->length, MS_ASYNC);
    close(r->file);
    const std::string to = g_dir + "/" + r->name;
    must(rename((to + "-Kova").c_str(), to.c_str()), "rename");
    watch(EPOLL_CTL_DEL, r, 0);
    close(r->fd);
    if (r->map)
        munmap(r->map, r->length);
    free(r);
}

void take_head(record* r)
{
    char head[2048];
    const ssize_t n = recv(r->fd, head, sizeof(head) - 1, 0);
    if (n <= 0)
        die("source");
    head[n] = '\0';
    const char* end = strstr(head, "\r\n\r\n");
    const char* field = strstr(head, "Content-Length: ");
    if (!end || !field)
        die("head");
    r->length = strtoul(field + 16, nullptr, 10);
    const char* body = end + 4;
    const auto tail = static_cast<size_t>(head + n - body);
    r->file =
        must(open((g_dir + "/" + r->name + "-Kova").c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666), "open");
    must(ftruncate(r->file, static_cast<off_t>(r->length)), "ftruncate");
    if (g_is_mapped) {
        must(fallocate(r->file, 0, 0, static_cast<off_t>(r->length)), "fallocate");
        void* map = mmap(nullptr, r->length, PROT_WRITE, MAP_SHARED | MAP_NORESERVE | MAP_POPULATE, r->file, 0);
        if (map == MAP_FAILED)
            die("mmap");
        r->map = static_cast<char*>(map);
        memcpy(r->map, body, tail);
    } else if (tail > 0 && write(r->file, body, tail) != static_cast<ssize_t>(tail)) {
        die("write");
    }
    r->pos = tail;
    static const char ANSWER[] = "HTTP/1.1 200 OK\r\nServer: bare\r\n\r\n";
    must(static_cast<int>(write(r->client, ANSWER, sizeof(ANSWER) - 1)), "answer");
    close(r->client);
    if (r->pos == r->length)
        finish(r);
}

void take_body(record* r)
{
    const size_t left = r->length - r->pos;
    ssize_t n = 0;
    if (r->map) {
        n = read(r->fd, r->map + r->pos, left);
    } else {
        n = read(r->fd, g_buf, left < sizeof(g_buf) ? left : sizeof(g_buf));
        if (n > 0 && write(r->file, g_buf, static_cast<size_t>(n)) != n)
            die("write");
    }
    if (n <= 0)
        die("body");
    r->pos += static_cast<size_t>(n);
    if (r->pos == r->length)
        finish(r);
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 4) {
        fprintf(stderr, "usage: bare_loop PORT DIR mapped|written\n");
        return 2;
    }
    g_dir = argv[2];
    g_is_mapped = strcmp(argv[3], "mapped") == 0;
    g_loop = must(epoll_create1(EPOLL_CLOEXEC), "epoll");
    record listener{};
    listener.fd = must(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket");
    const int on = 1;
    setsockopt(listener.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in sa = loopback(atoi(argv[1]));
    must(bind(listener.fd, reinterpret_cast<const sockaddr*>(&sa), sizeof(sa)), "bind");
    must(listen(listener.fd, 1024), "listen");
    watch(EPOLL_CTL_ADD, &listener, EPOLLIN);
    for (;;) {
        epoll_event events[128];
        const int n = epoll_wait(g_loop, events, 128, -1);
        for (int i = 0; i < n; ++i) {
            auto* r = static_cast<record*>(events[i].data.ptr);
            if (r->what == LISTENER)
                take_clients(r);
            else if (r->what == CLIENT)
                take_order(r);
            else if (!r->is_sent)
                send_get(r);
            else if (r->length == 0)
                take_head(r);
            else
                take_body(r);
        }
    }
}
