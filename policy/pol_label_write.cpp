// SPDX-License-Identifier: Apache-2.0
#include "pol_yarrow_thread_internal.h"
namespace pol {
bool label_write(t_pol_yarrow_thread*, const t_pol_label_set&) { return false; }
}  // namespace pol
