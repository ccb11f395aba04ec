/* The hot rooms, one by one. */
#include "data.h"
#include "gkh.h"
#include "log.h"
#include "order.h"
#include "rqs.h"
#include "strops.h"
#include "timeop.h"
#include "tmout.h"
#include "webops.h"
#include "wopen.h"
#include "xvdat.h"

#include <benchmark/benchmark.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

namespace
{

void record_filtered_out(benchmark::State& state)
{
    g_mod_ll[0] = NORM_level;
    int i = 0;
    for (auto _ : state) {
        LOG_DEBUG("%s: %d of %s\n", __func__, ++i, "many");
        benchmark::ClobberMemory();
    }
}
BENCHMARK(record_filtered_out);

void record_written(benchmark::State& state)
{
    FILE* null = fopen("/dev/null", "w");
    (void)setvbuf(null, nullptr, _IONBF, 0);
    log_default(g_log, null);
    log_set_pid(g_log, getpid());
    int i = 0;
    for (auto _ : state)
        LOG_NORM("%s: %d of %s\n", __func__, ++i, "many");
    log_default(g_log, stderr);
    fclose(null);
}
BENCHMARK(record_written);

void request_head_to_order(benchmark::State& state)
{
    g_mod_ll[0] = ERR_level;
    cut_text(g_cfg.data_dir, sizeof(g_cfg.data_dir), "/tmp");
    const std::string text =
        "GET /src/http://127.0.0.1:8080/live/stream/segment.ts/dst/segment.ts?expiry=600 HTTP/1.1\r\n"
        "Host: agent.example.net\r\nUser-Agent: balancer\r\nAccept-Encoding: gzip\r\n\r\n";
    for (auto _ : state) {
        char head[HEAD_MAX];
        dw_urq urq{};
        dw_spec spec{};
        urq.tag = TAG_URQ;
        urq.hrq.hbuf = head;
        urq.hrq.hlen = sizeof(head);
        urq.hrq.hpos = cut_text(head, sizeof(head), text);
        benchmark::DoNotOptimize(parse_dw_get(&urq, &spec));
    }
}
BENCHMARK(request_head_to_order);

void response_head_to_length(benchmark::State& state)
{
    const std::string text =
        "HTTP/1.1 200 OK\r\nServer: origin\r\nDate: Sat, 21 Nov 2026 10:00:00 GMT\r\nContent-Type: video/mp2t\r\n"
        "Content-Length: 1234567\r\nConnection: close\r\n\r\n";
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return;
    for (auto _ : state) {
        char head[2048];
        http_resp_ctx resp{};
        if (write(fds[1], text.data(), text.size()) < 0)
            break;
        benchmark::DoNotOptimize(recv_http_response(fds[0], head, sizeof(head), &resp));
        benchmark::DoNotOptimize(extract_num_hdr("Content-Length:", {head, static_cast<size_t>(resp.tail)}));
    }
    close(fds[0]);
    close(fds[1]);
}
BENCHMARK(response_head_to_length);

void task_table(benchmark::State& state)
{
    const auto n = static_cast<size_t>(state.range(0));
    std::vector<std::string> keys;
    for (size_t i = 0; i <= n; ++i)
        keys.push_back("127.0.0.1:8080/live/stream/segment-" + std::to_string(i) + ".ts");
    skht_t table = nullptr;
    if (skht_create(&table, n, plHash, nullptr, 0) != 0)
        return;
    void* data = &table;
    for (size_t i = 0; i < n; ++i)
        (void)skht_add(table, keys[i].c_str(), &data);
    const char* key = keys[n].c_str();
    for (auto _ : state) {
        void* found = &table;
        benchmark::DoNotOptimize(skht_add(table, key, &found));
        benchmark::DoNotOptimize(skht_get(table, key, &found));
        benchmark::DoNotOptimize(skht_rm(table, key, &found));
    }
    skht_destroy(table, nullptr);
}
BENCHMARK(task_table)->Arg(10)->Arg(100000);

void slot_list(benchmark::State& state)
{
    xvlst list{};
    const auto n = static_cast<size_t>(state.range(0));
    if (xvlst_reserve(&list, n + 1, sizeof(void*), 1) != 0)
        return;
    for (size_t i = 0; i < n; ++i)
        (void)xvlst_add(&list, sizeof(void*), 1);
    for (auto _ : state) {
        const ssize_t j = xvlst_add(&list, sizeof(void*), 1);
        benchmark::DoNotOptimize(xvlst_del(&list, static_cast<size_t>(j), nullptr));
    }
    xvlst_reset(&list);
}
BENCHMARK(slot_list)->Arg(10)->Arg(4000);

void timeout_registry(benchmark::State& state)
{
    init_timeout_registry();
    for (auto _ : state) {
        set_timeout(URQ_TMOUT, URQ_TMOUT_MS);
        benchmark::DoNotOptimize(get_min_timeout());
        rm_timeout(URQ_TMOUT);
    }
}
BENCHMARK(timeout_registry);

/* One round of the loop in which one of many descriptors is ready: it ends the loop. */
void loop_round(benchmark::State& state)
{
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    setrlimit(RLIMIT_NOFILE, &lim);
    g_mod_ll[0] = ERR_level;
    rqs_config config{};
    config.cb.read = [](int, uint32_t, void*, void*) noexcept { return 1; };
    if (rqs_init(&config) != 0)
        return;
    static n32_tag tag = mk_tag("URQ");
    std::vector<int> fds;
    for (int64_t i = 0; i < state.range(0); ++i) {
        const int fd = eventfd(i == 0, EFD_NONBLOCK);
        if (fd < 0 || rqs_add_reader(fd, &tag) != 0) {
            state.SkipWithError("the descriptor limit is too low");
            break;
        }
        fds.push_back(fd);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(rqs_event_loop());
    for (const int fd : fds) {
        rqs_rm_fd(fd, false, false);
        close(fd);
    }
    rqs_destroy();
}
BENCHMARK(loop_round)->Arg(10)->Arg(1000)->Arg(10000);

} // namespace

BENCHMARK_MAIN();
