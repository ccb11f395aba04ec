/* What the files of the socket layer share among themselves. */
#pragma once

#include "netops.h"

[[nodiscard]] bool is_mcast_addr(const sockaddr_storage* ss) noexcept;
/* SO_REUSEADDR, SO_REUSEPORT, bind. 0 or -1 (logged). */
[[nodiscard]] int reuse_and_bind(int fd, const sockaddr_storage* ss, socklen_t len) noexcept;
/* Joins (reader) or chooses the outgoing interface (writer). ss may get a scope id. 0 or -1 (logged
   under the name fn). */
[[nodiscard]] int setup_mcast(const char* fn, int fd, sockaddr_storage* ss, socklen_t len, const socket_spec* spec,
                              const char* ifc, ifc_info** ifc_used) noexcept;
