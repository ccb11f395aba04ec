/* A client's request head, down to the order that it makes. */
#include "fuzz.h"

#include "order.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    fuzz_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    char head[HEAD_MAX];
    const size_t len = cut_text(head, sizeof(head), {reinterpret_cast<const char*>(data), size});
    dw_urq urq{};
    dw_spec spec{};
    urq.tag = TAG_URQ;
    urq.hrq.hbuf = head;
    urq.hrq.hlen = sizeof(head);
    urq.hrq.hpos = len;
    const int rc = parse_dw_get(&urq, &spec);
    if (rc == 0)
        fuzz_check_spec(spec);
    MUST(rc != 0 || urq.hrq.header.type == RQTYPE_GET || urq.hrq.header.type == RQTYPE_HEAD);
    return 0;
}
