/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_config_tags.h - the leaves and containers of the "zenodra-policy" schema that readers know,
 * by the numbers that the agent's schema gives them.
 *
 * A macro is the node's name. What pol_cfg_tag_value.tag holds is one of these, or the number of a
 * node that only the fetched text is made of.
 */
#ifndef POLICY_POL_CONFIG_TAGS_H
#define POLICY_POL_CONFIG_TAGS_H

#define POL_TAG_ACTION_VALUE 0x0369ffb7u
#define POL_TAG_ADDRESS 0x61fa2cdbu
#define POL_TAG_APP_LIST 0x542ece51u
#define POL_TAG_CARRIER 0x4ef9605au
#define POL_TAG_COLOR 0x2b503622u
#define POL_TAG_COLOR_LIST 0x3129eae5u
#define POL_TAG_DEFAULT_ACTION 0x7037c488u
#define POL_TAG_DESTINATION_DATA_IPV6_PREFIX_LIST 0x71567138u
#define POL_TAG_DESTINATION_DATA_PREFIX_LIST 0x4db8ee1au
#define POL_TAG_DNS_APP_LIST 0x5a06eb58u
#define POL_TAG_DOMAIN_ID 0x1beabc63u
#define POL_TAG_ENCAP 0x5a62686bu
#define POL_TAG_GE 0x0c7fba2eu
#define POL_TAG_GROUP_ID 0x7ce0369bu
#define POL_TAG_LE 0x10ae453cu
#define POL_TAG_LENGTH 0x0308c88eu
#define POL_TAG_LOCAL 0x7ef235bfu
#define POL_TAG_ORIGIN 0x775cf168u
#define POL_TAG_ORIGINATOR 0x470748d8u
#define POL_TAG_POLICER 0x58e2217bu
#define POL_TAG_PREFERENCE 0x176ecfd3u
#define POL_TAG_PREFERRED_COLOR 0x6464ce5du
#define POL_TAG_PREFIX_LIST 0x5dc389d2u
#define POL_TAG_SAAS_APP_LIST 0x07441945u
#define POL_TAG_SERVICE 0x32fc12e6u
#define POL_TAG_SITE_ID 0x59a72353u
#define POL_TAG_SITE_LIST 0x6d6fa00bu
#define POL_TAG_SLA_CLASS 0x1fc19c53u
#define POL_TAG_SOURCE_DATA_IPV6_PREFIX_LIST 0x5754b118u
#define POL_TAG_SOURCE_DATA_PREFIX_LIST 0x32d6e4cbu
#define POL_TAG_STRICT 0x5c327362u
#define POL_TAG_TAG 0x0c2c7467u
#define POL_TAG_TLOC 0x33c074ceu
#define POL_TAG_TLOC_ACTION 0x4a63a685u
#define POL_TAG_TLOC_LIST 0x72d28bfeu
#define POL_TAG_TYPE 0x6ccfcce4u
#define POL_TAG_VPN 0x4d7d11c2u
#define POL_TAG_VPN_LIST 0x6aebf6e6u

#endif
