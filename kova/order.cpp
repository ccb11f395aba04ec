/* The grammar of an order below its URL: request head or datagram to source and destination, and these to paths, expiry
   and refusals. Nothing is made on disk but missing directories, and those only once the order is acceptable. */
#include "order.h"

#include "dirs.h"
#include "log.h"
#include "strops.h"
#include "unfinished.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr std::string_view HTTP_PREFIX = "http://";
constexpr char BLANKS[] = " \t"; /* end a word of a datagram */
/* Of the unfinished path, NUL included. One less than its field holds, on purpose: see init_spec. */
constexpr size_t FPATH_LIMIT = SPEC_PATH_MAX - 1;

/* ---- the order ---- */

/* A raw control byte would write lines of its own into the GET that is sent, and into the log. Not quoted. */
static int check_bytes(const char* fn, const char* what, const char* text) noexcept
{
    for (const char* p = text; *p; ++p) {
        if (is_control(*p)) {
            LOG_ERR("%s: control byte 0x%02x at %td of the %s\n", fn, static_cast<unsigned>(*p), p - text, what);
            return EINVAL;
        }
    }
    return 0;
}

/* Paths of the order; makes the missing directories. The path data_dir/dst-Kova is cut at 126 characters and refused
   from 128 on: one of 127 loses its last character, and with it the suffix that would tell it from a finished file.
   0; ERANGE; the error of the making. */
static int init_spec(const char* data_dir, const char* src, const char* dst, dw_spec* spec) noexcept
{
    const size_t len = strlen(data_dir);
    const char* slash = len > 0 && data_dir[len - 1] == '/' ? "" : "/";
    std::array<char, SPEC_PATH_MAX> path;
    const size_t n = join_text(path.data(), path.size(), {data_dir, slash, dst, UNFINISHED_SFX});
    if (n >= path.size()) {
        LOG_ERR("%s: full path is too long: %zu/%zu\n", __func__, n, SPEC_PATH_MAX);
        return ERANGE;
    }
    cut_text(spec->fpath, FPATH_LIMIT, {path.data(), n});
    if (!is_unfinished_seg(spec->fpath)) {
        LOG_ERR("%s: full path was cut: [%s]\n", __func__, spec->fpath);
        return ERANGE;
    }
    if (!copy_text(spec->url, sizeof(spec->url), src)) {
        LOG_ERR("%s: source URL is too long: %zu/%zu\n", __func__, strlen(src), SPEC_URL_MAX);
        return ERANGE;
    }
    if (const int rc = mk_fpath_dirs(spec->fpath)) {
        LOG_ERR("%s: cannot ensure dest path [%s]\n", __func__, spec->fpath);
        return rc;
    }
    cut_text(spec->dst_path, sizeof(spec->dst_path), dst);
    spec->content_length = 0;
    return 0;
}

/* Source and destination (a buffer of dst_cap + 1 bytes, filled from the source when empty) to order. The checks come
   before anything is made on disk, and the check of the unfinished file, which may remove one, last. 0; EINVAL; ERANGE;
   EEXIST the unfinished file is being written; the result of a failing step. All logged. */
static int setup_dw_spec(const char* src, char* dst, size_t dst_cap, dw_spec* spec) noexcept
{
    LOG_DEBUG("%s: src=[%s] dst=[%s]\n", __func__, src, dst);
    if (!std::string_view(src).starts_with(HTTP_PREFIX)) {
        LOG_ERR("%s: non-HTTP or invalid src=[%s]\n", __func__, src);
        return EINVAL;
    }
    if (!dst[0]) {
        const char* host = strstr(src, "//");
        const char* slash = host ? strchr(host + 2, '/') : nullptr;
        if (!slash || !slash[1]) {
            LOG_ERR("%s: cannot extract path from source URL: %s\n", __func__, src);
            return EINVAL;
        }
        cut_text(dst, dst_cap, slash + 1);
        LOG_DEBUG("%s: source-based dst=[%s]\n", __func__, dst);
    }
    if (const int rc = check_bytes(__func__, "source", src))
        return rc;
    if (const int rc = check_bytes(__func__, "destination", dst))
        return rc;

    /* A destination must stay below the data directory. No segment of it may look like an unfinished file: a directory
       of such a name would be in the way of the order for that file. */
    for (std::string_view rest = dst; !rest.empty();) {
        const size_t slash = rest.find('/');
        const std::string_view seg = rest.substr(0, slash);
        if (seg == "..") {
            LOG_ERR("%s: destination leaves the data directory: [%s]\n", __func__, dst);
            return EINVAL;
        }
        if (seg.ends_with(UNFINISHED_SFX)) {
            LOG_ERR("%s: destination names an unfinished file: [%s]\n", __func__, dst);
            return EINVAL;
        }
        rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
    }
    if (const int rc = init_spec(g_cfg.data_dir, src, dst, spec))
        return rc;
    return check_unfinished(__func__, spec);
}

/* ---- the request ---- */

/* Cuts the query off the source: what is fetched never carries one. The expiry in it, or 0. The field is looked for as
   text, so a longer name that ends in "expiry=" is one too. */
static long cut_expiry(const char* fn, char* src) noexcept
{
    char* mark = strchr(src, '?');
    if (!mark)
        return 0;
    *mark = '\0';
    const char* query = mark + 1;
    const char* field = strstr(query, "expiry=");
    long expiry = 0;
    text_scan s = {.p = field ? field : query, .count = 0, .failed = false};
    scan_literal(&s, "expiry=");
    scan_num(&s, SIZE_MAX, &expiry);
    if (s.count == 1)
        return expiry;
    LOG_WARN("%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n", fn, field ? field : query, s.count);
    return 0;
}

static int validate_request(dw_urq* urq, dw_spec* spec) noexcept
{
    return setup_dw_spec(urq->uri_src, urq->uri_dst, sizeof(urq->uri_dst) - 1, spec);
}

/* The expiry is taken before the order is checked, because its query is no part of the source. */
int parse_dw_get(dw_urq* urq, dw_spec* spec) noexcept
{
    http_rq* hrq = &urq->hrq;
    int rc = web_parse_urq(hrq->hbuf, hrq->hpos, urq->uri_src, urq->uri_dst, sizeof(urq->uri_src), &hrq->header);
    if (rc == RC_EMPTY_PATH) {
        urq->hresp = &g_resp_nocont;
        LOG_DEBUG("%s: PING: will send HTTP 204\n", __func__);
        return rc;
    }
    if (rc == 0) {
        LOG_DEBUG("%s: %s [%s] (%p): src=[%s], dst=[%s]\n", __func__, urq->tag.sym, urq->trk_tag.sym8,
                  static_cast<void*>(urq), urq->uri_src, urq->uri_dst);
        spec->expiry_tm = cut_expiry(__func__, urq->uri_src);
        rc = validate_request(urq, spec);
    } else {
        urq->hresp = &g_resp_bad;
    }
    if (rc != 0)
        LOG_ERR("%s: %s [%s] (%p): src=[%s], dst=[%s], ERROR(%d)\n", __func__, urq->tag.sym, urq->trk_tag.sym8,
                static_cast<void*>(urq), urq->uri_src, urq->uri_dst, rc);
    else
        LOG_DEBUG("%s: url=[%s], path=[%s], expiry=%jd\n", __func__, spec->url, spec->fpath, intmax_t{spec->expiry_tm});
    return rc;
}

/* ---- the datagram ---- */

int parse_msg(char* msg, char** url, char** lid, long* expiry) noexcept
{
    const size_t lid_len = strcspn(msg, BLANKS);
    if (!msg[lid_len]) {
        LOG_ERR("%s: missing URL part\n", __func__);
        return -1;
    }
    msg[lid_len] = '\0';
    if (lid_len < MIN_LID_LEN || lid_len > MAX_LID_LEN) {
        LOG_ERR("%s: id length (%zu) out of bounds: %d/%d\n", __func__, lid_len, MIN_LID_LEN, MAX_LID_LEN);
        return -1;
    }
    char* u = msg + lid_len + 1;
    const size_t url_len = strcspn(u, BLANKS);
    if (url_len <= MIN_URL_LEN - 1) {
        LOG_ERR("%s: URL length is too small: %zu/%d bytes\n", __func__, url_len, MIN_URL_LEN);
        return -1;
    }
    char* rest = u + url_len;
    if (*rest)
        *rest++ = '\0';
    rest += strspn(rest, " \t\n\v\f\r");
    if (!*rest || *rest == '#') {
        LOG_WARN("%s: no expiry data passed\n", __func__);
        ASSERT_AS(false, "expiry"); /* a fault of the sender that stops the agent, on purpose */
    }
    long when = 0;
    const int n = sscanf(rest, "%ld %*s", &when); // NOLINT(cert-err34-c)
    if (n != 1)
        LOG_WARN("%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n", __func__, rest, n);
    if (url)
        *url = u;
    if (lid)
        *lid = msg;
    if (expiry)
        *expiry = n == 1 ? when : 0;
    return 0;
}

int parse_url(const char* url, const char* lid, dw_spec* spec) noexcept
{
    std::array<char, ORDER_TEXT_MAX> src{};
    std::array<char, ORDER_TEXT_MAX> dst{};
    if (const int rc = web_parse_url(url, src.data(), dst.data(), src.size() - 1))
        return rc;
    if (const int rc = setup_dw_spec(src.data(), dst.data(), dst.size() - 1, spec))
        return rc;
    if (lid)
        cut_text(spec->lid, sizeof(spec->lid), lid);
    return 0;
}
