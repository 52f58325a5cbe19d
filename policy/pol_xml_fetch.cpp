// SPDX-License-Identifier: Apache-2.0
#include "pol_yarrow_thread_internal.h"
namespace pol {
bool xml_fetch(t_pol_yarrow_thread*, uint32_t, const char*) { return false; }
}  // namespace pol
