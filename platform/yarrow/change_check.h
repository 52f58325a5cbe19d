// SPDX-License-Identifier: Apache-2.0
//
// Whether a change that an agent told holds what the schema says. Its readers take a value by the
// type of its node and would read another as if it were of that type.
#ifndef YARROW_CHANGE_CHECK_H
#define YARROW_CHANGE_CHECK_H

#include "yarrow/yarrow_changes.h"
#include "yarrow/yarrow_schema.h"

namespace yarrow {

// Checks keys and values against the node at the change's path. What the schema does not know is
// for readers to skip: it passes. YARROW_ERR names the path, what came, and what was expected.
int check_change(const t_yarrow_cs_node& node, const t_yarrow_change& change);

}  // namespace yarrow
#endif
