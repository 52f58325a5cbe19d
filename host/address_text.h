/* SPDX-License-Identifier: Apache-2.0
 *
 * address_text.h - addresses and prefixes from text and back.
 *
 * Stricter than what the policy file takes: four decimal octets without leading zeros, or an IPv6
 * address (RFC 4291), a length within the family's width. Host bits beyond the length are kept; the
 * library ignores them.
 */
#ifndef HOST_ADDRESS_TEXT_H
#define HOST_ADDRESS_TEXT_H

#include <string>
#include <string_view>

#include "input_error.h"
#include "kel/ipaddr.h"
#include "kel/tloc.h"

namespace polctl {

/* False when the text is none; then `fault` says what and where, its column counted within `text`.
 */
bool parse_address(std::string_view text, t_ipaddr* address, LineFault* fault);
bool parse_prefix(std::string_view text, t_ipprefix* prefix, LineFault* fault);

std::string address_text(const t_ipaddr& address);
std::string prefix_text(const t_ipprefix& prefix);
/* The bare address of a TLOC, and the whole TLOC as the library's dumps show it. */
std::string tloc_address_text(const t_tloc_id& tloc);
std::string tloc_text(const t_tloc_id& tloc);

/* Text that others wrote, cut to 40 bytes and made fit for a message: bytes that are not printable
 * ASCII become '?'. */
std::string in_quotes(std::string_view text);

/* The text as a terminal or a log may have it: control characters, of C1 too, those that turn the
 * direction of writing, and bytes that are no UTF-8 become '?'. */
std::string printable(std::string_view text);
/* The same of several lines, whose ends stay. */
std::string printable_lines(std::string_view text);

}  // namespace polctl

#endif
