/* SPDX-License-Identifier: Apache-2.0
 *
 * page.h - the page of tool/page as one text, put together by the build.
 */
#ifndef TOOL_WATCHING_PAGE_H
#define TOOL_WATCHING_PAGE_H

namespace polctl {

extern const char kPage[];       /* holds {"DATA":0} where answers may stand */
extern const char kPagePolicy[]; /* the header Content-Security-Policy that goes with it */

}  // namespace polctl

#endif
