/* A datagram, down to the order that it makes. The missing expiry ends the agent by its assertion: that end is
   expected. */
#include "fuzz.h"

#include "order.h"
#include "udl.h"

#include <csetjmp>

static jmp_buf g_stopped;

/* The datagram that stops the agent comes back here. Nothing on the way owns anything. */
extern "C" [[noreturn]] void __assert_fail(const char* text, const char* /*file*/, unsigned /*line*/,
                                           const char* /*func*/) noexcept
{
    MUST(std::string_view(text) == "expiry");
    longjmp(g_stopped, 1);
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    /* Every source counts as local, so that no download is begun. */
    cut_text(g_cfg.seg_url_pfx, sizeof(g_cfg.seg_url_pfx), "http:/");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), std::min<size_t>(size, 9000));
    udl_ctx udl{};
    udl.sockfd = fuzz_peer(text, SOCK_DGRAM);
    const n64_tag group = log_get_group(g_log);
    if (setjmp(g_stopped) == 0)
        (void)udl_accept(&udl);
    log_set_group(g_log, group);
    close(udl.sockfd);

    /* The order behind the URL, with what it promises. */
    dw_spec spec{};
    if (parse_url(text.c_str(), "job1", &spec) == 0) {
        fuzz_check_spec(spec);
        MUST(std::string_view(spec.lid) == "job1");
    }
    return 0;
}
