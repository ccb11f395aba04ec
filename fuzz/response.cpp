/* A source's answer: its head, its announced length, and which part of it is body. */
#include "fuzz.h"

#include "webops.h"
#include "wopen.h"

#include <array>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::array<char, 2048> head{};
    const int fd = fuzz_peer({reinterpret_cast<const char*>(data), size});
    http_resp_ctx resp{};
    const int rc = recv_http_response(fd, head.data(), head.size() - 1, &resp);
    close(fd);
    if (rc != 0)
        return 0;
    MUST(resp.tail > 0 && resp.tail <= resp.total && resp.total < static_cast<ssize_t>(head.size()));
    const auto length = extract_num_hdr("Content-Length:", {head.data(), static_cast<size_t>(resp.tail)});
    MUST(!length || *length >= 0);
    (void)http_code_resp(resp.code);
    return 0;
}
