// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_document_internal.h - what putting a document together remembers.
#pragma once

#include "kel/avl.h"

// An object of which the document has the text.
struct t_list_name_entry {
  char name[33];  // first: the key
  avl_node link;
};
