// SPDX-License-Identifier: Apache-2.0
#include "support/paths.h"

const char kGoldenDir[] = GOLDEN_DIR;
const char kExamplesDir[] = EXAMPLES_DIR;
const char kYarrowdPath[] = YARROWD_PATH;
const char kPolctlPath[] = POLCTL_PATH;
