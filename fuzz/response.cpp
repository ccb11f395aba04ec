/* A source's answer: its status line, its head, its announced length, and which part of it is body. */
#include "fuzz.h"

#include "webops.h"
#include "wopen.h"

#include <array>
#include <sstream>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    MUST(extract_num_hdr("Content-Length", "A: b\r\nContent-Length: 5\r\n") ==
         5); /* else the question below is blind */
    return 0;
}

/* What sources have been getting away with, and the counts in the refusals, are those of the C library. */
static void check_scan(const std::string& text)
{
    std::array<int, 3> theirs{};
    std::array<char, 32> their_word{};
    const int n = sscanf(text.c_str(), "HTTP/%1d.%1d %d %31s\r\n", &theirs[0], &theirs[1], // NOLINT(cert-err34-c)
                         &theirs[2], their_word.data());
    std::array<long, 3> ours{};
    std::array<char, 32> our_word{};
    text_scan s = {.p = text.c_str(), .count = 0, .failed = false};
    scan_literal(&s, "HTTP/");
    scan_num(&s, 1, &ours[0]);
    scan_literal(&s, ".");
    scan_num(&s, 1, &ours[1]);
    scan_num(&s, SIZE_MAX, &ours[2]);
    scan_word(&s, our_word.data(), our_word.size());
    MUST(s.count == n && their_word == our_word);
    for (size_t i = 0; i < theirs.size(); ++i)
        MUST(theirs[i] == static_cast<int>(ours[i]));
}

/* Texts between bars are status lines; the whole is an answer. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::istringstream lines({reinterpret_cast<const char*>(data), size});
    for (std::string line; std::getline(lines, line, '|');)
        check_scan(line);
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
