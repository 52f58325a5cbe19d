// SPDX-License-Identifier: Apache-2.0
//
// Values between their canonical text, as trees keep it, and their typed form, as clients see it.
#ifndef AGENT_VALUES_H
#define AGENT_VALUES_H

#include <string>
#include <string_view>

#include "agent/result.h"
#include "agent/schema.h"
#include "platform/yarrow/wire.h"

namespace agent {

// Writes the typed value of one canonical text.
void value_encode(const SchemaNode& leaf, std::string_view text, yarrow::Writer& out);

// The text of a typed value as a client sent it, not checked against the leaf's type yet. Several
// texts for a C_LIST. `*absent` tells a C_NOEXISTS.
Result value_decode(const SchemaNode& leaf, yarrow::Reader& in, std::vector<std::string>* texts,
                    bool* absent);

}  // namespace agent
#endif
