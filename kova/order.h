/* The grammar of an order, as a request and as a datagram write it, and the record that both come to. No order leaves
   this room that could write outside the data directory or send bytes of its own to a source. */
#pragma once

#include "data.h"

/* Request head to order; changes the head's text. 0; RC_EMPTY_PATH; else the refusing step's error (logged). Chooses
   the answer of a ping and of a head that cannot be parsed. */
[[nodiscard]] int parse_dw_get(dw_urq* urq, dw_spec* spec) noexcept;

/* "lid url expiry" of a datagram, taken apart in place. 0 or -1 (logged); aborts when the expiry is missing. Outputs
   may be null. */
[[nodiscard]] int parse_msg(char* msg, char** url, char** lid, long* expiry) noexcept;
/* Order of a datagram's URL; lid may be null. 0 or an error (logged). */
[[nodiscard]] int parse_url(const char* url, const char* lid, dw_spec* spec) noexcept;
