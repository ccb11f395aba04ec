/* Interfaces by name or address, and membership in multicast groups. The kernel has two interfaces for membership: one
   for all families, which is used, and one for each of them, which a process may choose. A group is joined on one
   interface, since the routing table knows nothing of where a group's senders are. */
#include "netops_internal.h"

#include "guard.h"
#include "log.h"
#include "strops.h"
#include "syswrap.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

static loglevel_ctx g_ll = LOGLEVEL_CTX(0);

bool mcast_by_protocol = false;

using ifaddrs_ptr = std::unique_ptr<ifaddrs, releaser<freeifaddrs>>;
using ifc_ptr = std::unique_ptr<ifc_info, releaser<free>>;

static const sockaddr_in* as_in(const void* sa) noexcept
{
    return static_cast<const sockaddr_in*>(sa);
}

static const sockaddr_in6* as_in6(const void* sa) noexcept
{
    return static_cast<const sockaddr_in6*>(sa);
}

/* ---- interfaces ---- */

/* Whether an entry has an address of the family; of one of the two where any will do. */
static bool is_family(const ifaddrs* ifa, int family) noexcept
{
    const int af = ifa->ifa_addr ? ifa->ifa_addr->sa_family : AF_UNSPEC;
    return family == AF_UNSPEC ? af == AF_INET || af == AF_INET6 : af == family;
}

/* An address has many spellings. */
static bool is_addr_text(const sockaddr* sa, const char* text) noexcept
{
    in6_addr addr{};
    if (sa->sa_family == AF_INET)
        return inet_pton(AF_INET, text, &addr) == 1 && memcmp(&addr, &as_in(sa)->sin_addr, sizeof(in_addr)) == 0;
    return sa->sa_family == AF_INET6 && inet_pton(AF_INET6, text, &addr) == 1 &&
           IN6_ARE_ADDR_EQUAL(&addr, &as_in6(sa)->sin6_addr);
}

/* The first address of the family, from ifa on, that stands under a name; null when there is none. */
static const ifaddrs* ifc_addr_lookup(const ifaddrs* ifa, int family, const char* name) noexcept
{
    while (ifa && !(is_family(ifa, family) && strcmp(ifa->ifa_name, name) == 0))
        ifa = ifa->ifa_next;
    return ifa;
}

/* A name gives the interface's first address of the wanted family, an address that one itself; both need the index, by
   which the kernel knows it. A name may also be the label of an address (eth0:1), which stands in the list as one. */
ifc_info* get_ifc_info(int family, const char* text) noexcept
{
    ifaddrs* raw = nullptr;
    if (getifaddrs(&raw) != 0) {
        LOG_ERR("%s: getifaddrs [%s] (family=%d): %s\n", __func__, text, family, strerror(errno));
        return nullptr;
    }
    const ifaddrs_ptr list(raw);
    ifc_ptr info(static_cast<ifc_info*>(W_calloc(__func__, 1, sizeof(ifc_info))));
    if (!info)
        return nullptr;

    const ifaddrs* ifa = list.get();
    bool by_addr = false;
    for (; ifa; ifa = ifa->ifa_next) {
        by_addr = is_family(ifa, family) && is_addr_text(ifa->ifa_addr, text);
        if (by_addr || strcmp(ifa->ifa_name, text) == 0)
            break;
    }
    if (!ifa) {
        LOG_ERR("[%s] is not a valid %s interface address.\n", text, af2name(family));
        return nullptr;
    }
    info->idx = if_nametoindex(ifa->ifa_name);
    LOG_DEBUG("%s: %s matched to interface [%s], idx=%u\n", __func__, text, ifa->ifa_name, info->idx);
    if (!if_indextoname(info->idx, info->name)) {
        LOG_ERR("%s: if_indextoname(%u, buf): %s\n", __func__, info->idx, strerror(errno));
        return nullptr;
    }

    if (!by_addr)
        ifa = ifc_addr_lookup(ifa, family, text);
    if (!ifa) {
        LOG_ERR("%s: failed to look up address for ifc=%s\n", __func__, text);
        return nullptr;
    }
    /* Only as much as the family has: the list's entries are no sockaddr_storage. */
    memcpy(&info->ss, ifa->ifa_addr, ifa->ifa_addr->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
    return info.release();
}

/* A record without name and index: the kernel chooses by its routing table. */
ifc_info* any_ifc_info(int family) noexcept
{
    auto* info = static_cast<ifc_info*>(W_calloc(__func__, 1, sizeof(ifc_info)));
    if (info)
        info->ss.ss_family = static_cast<sa_family_t>(family); /* the zeroed address is the any-address */
    return info;
}

/* ---- membership ---- */

bool is_mcast_addr(const sockaddr_storage* ss) noexcept
{
    if (ss->ss_family == AF_INET)
        return IN_MULTICAST(ntohl(as_in(ss)->sin_addr.s_addr));
    return ss->ss_family == AF_INET6 && IN6_IS_ADDR_MULTICAST(&as_in6(ss)->sin6_addr);
}

/* Protocol level of the family's options, or -1 (logged). */
static int level_of(const char* fn, int family) noexcept
{
    switch (family) {
    case AF_INET:
        return IPPROTO_IP;
    case AF_INET6:
        return IPPROTO_IPV6;
    default:
        LOG_ERR("%s: unsupported family %d\n", fn, family);
        return -1;
    }
}

/* How the options of IPv4 name an interface, where a process has chosen them: by an address of it. 0 with *addr, which
   stays zero for any, or -1 (logged). */
static int ipv4_of_ifc(int level, const ifc_info* ifc, in_addr* addr) noexcept
{
    if (!mcast_by_protocol || level != IPPROTO_IP)
        return 0;
    if (ifc && ifc->ss.ss_family == AF_INET) {
        *addr = as_in(&ifc->ss)->sin_addr;
    } else if (ifc && ifc->name[0]) {
        const ifc_ptr found(get_ifc_info(AF_INET, ifc->name));
        if (!found)
            return -1;
        *addr = as_in(&found->ss)->sin_addr;
    }
    return 0;
}

/* From any source. The interface's index is 0 where the kernel is to choose. */
static int change_membership(const char* fn, bool is_join, int fd, const sockaddr_storage* group,
                             const ifc_info* ifc) noexcept
{
    const char* what = is_join ? "MCAST_JOIN" : "MCAST_LEAVE";
    std::array<char, INET6_ADDRSTRLEN> text{}; /* stays empty for other families */
    if (group->ss_family == AF_INET)
        inet_ntop(AF_INET, &as_in(group)->sin_addr, text.data(), text.size());
    else if (group->ss_family == AF_INET6)
        inet_ntop(AF_INET6, &as_in6(group)->sin6_addr, text.data(), text.size());
    LOG_DEBUG("%s: ifc-name=%s, idx=%u ifc=%p\n", fn, ifc && ifc->name[0] ? ifc->name : "<none>", ifc ? ifc->idx : 0,
              static_cast<const void*>(ifc));
    LOG_DEBUG("%s: using %s mulitcast API to %s group %s\n", fn, mcast_by_protocol ? "protocol-specific" : "GENERIC",
              what, text.data());
    const int level = level_of(fn, group->ss_family);
    in_addr own{};
    if (level < 0 || ipv4_of_ifc(level, ifc, &own) != 0)
        return -1;
    int rc = 0;
    if (mcast_by_protocol && level == IPPROTO_IPV6) {
        const ipv6_mreq req = {as_in6(group)->sin6_addr, ifc ? ifc->idx : 0};
        rc = setsockopt(fd, level, is_join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &req, sizeof(req));
    } else if (mcast_by_protocol) {
        const ip_mreq req = {as_in(group)->sin_addr, own};
        rc = setsockopt(fd, level, is_join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &req, sizeof(req));
    } else {
        group_req req{};
        req.gr_interface = ifc ? ifc->idx : 0;
        req.gr_group = *group;
        rc = setsockopt(fd, level, is_join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &req, sizeof(req));
    }
    if (rc != 0)
        LOG_ERR("%s: %s fd=%d: %s\n", fn, what, fd, strerror(errno));
    return rc;
}

int mcast_join(int fd, const sockaddr_storage* group, const ifc_info* ifc) noexcept
{
    return change_membership(__func__, true, fd, group, ifc);
}

int mcast_leave(int fd, const sockaddr_storage* group, const ifc_info* ifc) noexcept
{
    return change_membership(__func__, false, fd, group, ifc);
}

/* From one source: others of the same group are dropped by the kernel and the routers before it. */
static int change_source(const char* fn, bool is_join, int fd, const sockaddr_storage* src,
                         const sockaddr_storage* group, const ifc_info* ifc) noexcept
{
    const char* what = is_join ? "SSM_JOIN" : "SSM_LEAVE";
    const int level = level_of(fn, group->ss_family);
    in_addr own{};
    if (level < 0 || ipv4_of_ifc(level, ifc, &own) != 0)
        return -1;
    int rc = 0;
    if (!mcast_by_protocol) {
        group_source_req req{};
        req.gsr_interface = ifc ? ifc->idx : 0;
        req.gsr_group = *group;
        req.gsr_source = *src;
        rc = setsockopt(fd, level, is_join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP, &req, sizeof(req));
    } else if (level == IPPROTO_IPV6) {
        LOG_ERR("%s: (%s) IPv6-specific SSM not supported\n", fn, what);
        return EINVAL;
    } else {
        const ip_mreq_source req = {as_in(group)->sin_addr, own, as_in(src)->sin_addr};
        rc = setsockopt(fd, level, is_join ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP, &req, sizeof(req));
    }
    if (rc != 0)
        LOG_ERR("%s: (%s) FAILED ifc=%s/%u fd%d: %s\n", fn, what, ifc && ifc->name[0] ? ifc->name : "<none>",
                ifc ? ifc->idx : 0, fd, strerror(errno));
    return rc;
}

int ssm_join(int fd, const sockaddr_storage* src, const sockaddr_storage* group, const ifc_info* ifc) noexcept
{
    return change_source(__func__, true, fd, src, group, ifc);
}

int ssm_leave(int fd, const sockaddr_storage* src, const sockaddr_storage* group, const ifc_info* ifc) noexcept
{
    return change_source(__func__, false, fd, src, group, ifc);
}

/* ---- sockets of a group ---- */

static int setup_reader(const char* fn, int fd, sockaddr_storage* ss, socklen_t len, const socket_spec* spec,
                        const ifc_info* ifc) noexcept
{
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(ss);
    /* A group of link or interface scope exists once on each link: its address needs to say which. */
    if (ss->ss_family == AF_INET6 &&
        (IN6_IS_ADDR_MC_LINKLOCAL(&sin6->sin6_addr) || IN6_IS_ADDR_MC_NODELOCAL(&sin6->sin6_addr))) {
        if (ifc->idx == 0) {
            LOG_ERR("%s: network interface must be specified to use link/local-scope multicast\n", fn);
            LOG_ERR("%s: cannot set scope id, interface or link-specific address must be selected\n", fn);
            return -1;
        }
        if (sin6->sin6_scope_id != ifc->idx)
            LOG_DEBUG("updated IPv6 address scope ID to %u\n", ifc->idx);
        else
            LOG_DEBUG("IPv6 address scope ID %u left unchanged\n", ifc->idx);
        sin6->sin6_scope_id = ifc->idx;
    }
    LOG_DEBUG("%s: fd=%d, ifc=[%s]:%p\n", fn, fd, ifc->name[0] ? ifc->name : "<any>", static_cast<const void*>(ifc));
    if (reuse_and_bind(fd, ss, len) != 0)
        return -1;
    return spec->is_ssm ? ssm_join(fd, &spec->src_ss, ss, ifc) : mcast_join(fd, ss, ifc);
}

bool is_any_name(std::string_view ifc) noexcept
{
    return ifc.empty() || ci_equal(ifc, "any") || ci_equal(ifc, "all");
}

/* A configured channel may also name the any-address; a web listener's interface is looked up then. */
bool is_any_ifc(std::string_view ifc) noexcept
{
    return is_any_name(ifc) || ifc == "0.0.0.0" || ifc == "::";
}

/* The interface goes to the caller only when all went well; he keeps it as long as the socket. */
int setup_mcast(const char* fn, int fd, sockaddr_storage* ss, socklen_t len, const socket_spec* spec, const char* ifc,
                ifc_info** ifc_used) noexcept
{
    ifc_ptr info(!ifc || is_any_ifc(ifc) ? any_ifc_info(ss->ss_family) : get_ifc_info(ss->ss_family, ifc));
    if (!info)
        return -1;
    int rc = 0;
    if (!spec->writer) {
        rc = setup_reader(fn, fd, ss, len, spec, info.get());
    } else if (ss->ss_family == AF_INET6) { /* an IPv4 group is sent to where the routing table points */
        const auto idx = static_cast<int>(info->idx);
        if (idx == 0) {
            LOG_ERR("%s: network interface must be specified\n", fn);
            return -1;
        }
        rc = setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &idx, sizeof(idx));
        if (rc != 0)
            LOG_ERR("%s: setsockopt IPV6_MULTICAST_IF failed (%d): %s\n", fn, errno, strerror(errno));
    }
    if (rc == 0 && ifc_used)
        *ifc_used = info.release();
    return rc;
}
