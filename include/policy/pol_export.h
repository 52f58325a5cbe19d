/* SPDX-License-Identifier: Apache-2.0 */
#ifndef POLICY_POL_EXPORT_H
#define POLICY_POL_EXPORT_H

#ifdef __cplusplus
#define POL_API extern "C" __attribute__((visibility("default")))
#define POL_DATA extern "C" __attribute__((visibility("default")))
#else
#define POL_API __attribute__((visibility("default")))
#define POL_DATA extern __attribute__((visibility("default")))
#endif

#endif
