// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_config_internal.h - the records of the XML cache.
#pragma once

#include "kel/avl.h"
#include "policy/pol_xml_config.h"

struct t_pol_xml_config {
  avl_node link;
  int32_t type;  // with `name`: the tree's key
  char name[POL_NAME_SIZE];
  char* text;     // NUL-terminated; null while nothing was fetched
  uint32_t size;  // of the text, without the NUL
};
