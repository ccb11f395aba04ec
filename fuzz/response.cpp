/* A source's answer: its head, its announced length, and which part of it is body. */
#include "fuzz.h"

#include "webops.h"
#include "wopen.h"

#include <array>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    MUST(extract_num_hdr("Content-Length", "A: b\r\nContent-Length: 5\r\n") ==
         5); /* else the question below is blind */
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
    const std::string_view text(head.data(), static_cast<size_t>(resp.tail));
    const auto length = extract_num_hdr("Content-Length", text);
    MUST(!length || (*length >= 0 && text.find(std::to_string(*length)) != std::string_view::npos));
    (void)http_code_resp(resp.code);
    return 0;
}
