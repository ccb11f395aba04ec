/* The one place that asks whether a database is configured. The client itself (lbquery) is shared with sibling servers
   and knows no orders. */
#include "register.h"

#include "lbquery.h"
#include "log.h"
#include "strops.h"

#include <array>
#include <cstdio>
#include <string_view>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

constexpr size_t LBDB_URL_MAX = 256; /* of a registered URL, with its NUL */

static bool has_database() noexcept
{
    return g_cfg.lbdb.port > 0;
}

int open_register() noexcept
{
    if (!has_database())
        return 0;
    if (const int rc = lbdb_init(g_cfg.lbdb.sha1_path, LBQ_FL_ADD, 0))
        return rc;
    return lbdb_connect(g_cfg.lbdb.host, g_cfg.lbdb.port, g_cfg.lbdb.tmout);
}

void close_register() noexcept
{
    if (has_database())
        lbdb_destroy();
}

/* The character after the prefix decides: "http://a/vod" is no prefix of "http://a/vod2/x". */
bool is_local_url(const char* url) noexcept
{
    const std::string_view prefix(g_cfg.seg_url_pfx);
    if (prefix.empty() || !ci_starts_with(url, prefix))
        return false;
    const char next = url[prefix.size()];
    return next == '/' || next == '\0';
}

/* Registers the order's destination, and waits for the database's answer. 0; -1 the URL is too long; the client's error
   (logged). */
static int add_lbdb_url(const dw_spec* spec) noexcept
{
    ASSERT(g_cfg.seg_url_pfx[0] && spec->dst_path[0]);
    std::array<char, LBDB_URL_MAX> url{};
    const int n = snprintf(url.data(), url.size() - 1, "%s/%s", g_cfg.seg_url_pfx, spec->dst_path);
    /* 255 passes, though its last character is cut, as it always has been. */
    if (n < 1 || n > static_cast<int>(url.size()) - 1) {
        LOG_ERR("%s: n=%d, URL buffer error\n", __func__, n);
        return -1;
    }
    LOG_INFO("%s: id=[%s], url=[%s], expiry=%lu\n", __func__, spec->dst_path, url.data(),
             static_cast<unsigned long>(spec->expiry_tm));
    const int rc = lbdb_add_segurl(spec->dst_path, url.data(), spec->expiry_tm);
    if (rc != 0)
        LOG_ERR("%s: failed to add [%s]\n", __func__, spec->dst_path);
    return rc;
}

void register_file(const dw_spec* spec) noexcept
{
    if (has_database())
        (void)add_lbdb_url(spec);
}

int register_local(const char* fn, const dw_spec* spec) noexcept
{
    LOG_DEBUG("%s: [%s] is local URL, no download required\n", fn, spec->url);
    if (!has_database())
        return 0;
    LOG_DEBUG("%s: adding local URL to LBDB\n", fn);
    return add_lbdb_url(spec);
}
