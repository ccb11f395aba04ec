/* URIs: split, copied, walked by segments, decoded and encoded; texts are as long as the input, so that a read or write
   past their ends is seen. */
#include "fuzz.h"

#include "unfinished.h"
#include "uri.h"
#include "webops.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    return 0;
}

static bool within(const char* part, size_t len, const std::vector<char>& text)
{
    return !part || (part >= text.data() && part + len < text.data() + text.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    uri_layout u{};
    char host[128];
    char port[8];
    char part[256];
    if (uri_parse(text.data(), &u) == 0) {
        MUST(within(u.path, u.p_len, text) && within(u.query, u.q_len, text));
        (void)uri_get_scheme(&u, part, 16);
        (void)uri_get_authority(&u, part, sizeof(part));
        (void)uri_get_path(&u, part, sizeof(part));
        (void)uri_get_query(&u, part, sizeof(part));
        const char* tail =
            u.path ? uri_path_addrport(u.path, u.p_len, host, sizeof(host), port, sizeof(port)) : nullptr;
        MUST(within(tail, 0, text) && (!tail || (strlen(host) < sizeof(host) && strlen(port) < sizeof(port))));
        char src[256];
        char dst[256];
        if (u.path && uri_extract_endpts_ext(u.path, u.p_len, src, dst, sizeof(src)) == 0)
            MUST(strlen(src) < sizeof(src) && strlen(dst) < sizeof(dst));
    }
    (void)web_parse_url(text.data(), part, host, sizeof(host));
    (void)is_ping_request(text.data());
    (void)is_unfinished_seg(text.data());

    std::vector<char> decoded = text;
    for (const bool safe : {false, true}) {
        if (uri_decode_opt(decoded.data(), decoded.size(), safe)) /* refused: an escape at the very end of the room */
            MUST(strlen(decoded.data()) <= strlen(text.data()));
    }
    free(uri_encode(text.data(), size));
    return 0;
}
