/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_xml_compat.h - takes out of received policy XML what this device's schema does not know.
 *
 * A newer controller may send elements that an older device would refuse a whole load for. The text
 * is hostile until it is parsed: no DOCTYPE, and with it no entity of its own, no nesting beyond
 * what the parser bounds, nothing read from files or the network, no encoding but UTF-8, ASCII and
 * those of ISO 8859. Bounds keep the work proportional to the text: 64 KiB and 64 attributes a tag,
 * 64 namespaces in scope, 100,000 different names (with other texts of up to three bytes, and of
 * blanks). A text beyond them is no XML.
 */
#ifndef POLICY_POL_XML_COMPAT_H
#define POLICY_POL_XML_COMPAT_H

#include "policy/pol_types.h"

/* The text without its unknown elements and all below them, as XML of its own, to be freed with
 * libxml2's xmlFree. Null when there are none, when the text is no XML or longer than 256 MiB, and
 * when the schema cannot be had: the caller goes on with what it has. Elements are looked up by
 * name alone, but only those of `name_space` are taken out.
 * Left in, and logged: all from the 33rd unknown path on, and what stands at paths of 512 bytes and
 * more. On purpose an unknown element is also left in whose path begins like an unknown one before
 * it ("new", then "new-too"): the first is taken for its parent.
 * The schema is asked for whole paths with the module's prefix, each different one once, and not
 * below an unknown one (yarrow_cs_node_cd, which reads the schema at the first call of the
 * process). */
POL_API char* pol_xml_fetch_compat_config(const char* name_space, const char* text, uint32_t length,
                                          uint32_t* out_length);

#endif
