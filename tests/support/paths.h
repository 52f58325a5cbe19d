// SPDX-License-Identifier: Apache-2.0
//
// paths.h - where this build's programs and the texts beside the tests lie. Only paths.cpp is compiled
// for one folder: everything else is the same wherever the sources lie, and a compiler cache has it.
#pragma once

extern const char kGoldenDir[];
extern const char kExamplesDir[];
extern const char kYarrowdPath[];
extern const char kPolctlPath[];
