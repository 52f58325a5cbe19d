/* SPDX-License-Identifier: Apache-2.0
 *
 * tloc_reader.h - the TLOCs that resolve, from a file.
 */
#ifndef TOOL_TLOC_READER_H
#define TOOL_TLOC_READER_H

#include <string>

namespace polctl {

/* Makes these the TLOCs that resolve: JSON Lines of address, color, encap, label and preference,
 * service and the service's VPN, all but the address optional. Returns how many. Throws InputError. */
size_t load_resolvable_tlocs(const std::string& path);

}  // namespace polctl

#endif
