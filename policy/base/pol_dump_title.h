// SPDX-License-Identifier: Apache-2.0
//
// pol_dump_title.h - the heading of a dump.
#pragma once

#include "yarrow/yarrow_cli.h"

namespace pol {

inline constexpr char kDumpRule[] = "\n   ================================";

inline void dump_title(t_cli_user_ctx* cli, const char* title) {
  maapi_cli_printf(cli, "%s", kDumpRule);
  maapi_cli_printf(cli, "%s", title);
  maapi_cli_printf(cli, "%s", kDumpRule);
}

}  // namespace pol
