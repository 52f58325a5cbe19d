// SPDX-License-Identifier: Apache-2.0
//
// pol_fwd_document_internal.h - what putting a document together remembers.
#pragma once

#include "base/tail_queue.h"
#include "lists/named_list.h"

// An object of which the document has the text, and that is marked so.
struct t_list_name_entry {
  pol::TailLink<t_list_name_entry> link;
  pol::NamedHead* object;
};
