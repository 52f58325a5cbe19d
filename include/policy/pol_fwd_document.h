/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_fwd_document.h - the XML document from which the forwarding manager works: the applied
 * policies and everything that they name, put together from the XML cache.
 *
 * The way of a change: pol_fwd_queue_xml_config asks for the texts of what changed; once
 * pol_fwd_policy_is_yarrow_updated says so they are there; pol_fwd_policy_populate makes the body
 * and pol_fwd_policy_hdr_add the envelope around it.
 *
 * Ownership  every text is the caller's: pol_free(text, 6) for populate's, pol_free(text, 7) for an
 *            envelope, whichever way it came about. Texts are NUL-terminated; lengths are without
 *            it.
 * Threads    none of its own: the host serialises every call on one context.
 */
#ifndef POLICY_POL_FWD_DOCUMENT_H
#define POLICY_POL_FWD_DOCUMENT_H

#include "policy/pol_types.h"

/* The body of the document of four applied policies, each a handle of pol_register, or null for
 * none. Data policies that have one name, applied from the service and from
 * the tunnel side, stand in it once, for all directions. What several policies name stands in it
 * once.
 * 0, with length 0 and a null text when all four are null. A handle whose policy is gone adds
 * nothing; of such handles alone comes a text of length 0, which is freed like any other. An error
 * leaves length 0 and a null text. */
POL_API uint32_t pol_fwd_policy_populate(const t_pol_user* from_service,
                                         const t_pol_user* from_tunnel, const t_pol_user* app_route,
                                         const t_pol_user* cflowd, uint32_t* length, char** text);

/* The body in the agent's envelope; without a body (null) the empty envelope. Elements that the
 * local schema does not know are taken out (pol_xml_compat.h); on purpose the text then starts with
 * an XML declaration and has the policy's envelope only, not the configuration's around it. Null
 * when memory runs out or the text were longer than a length can tell. */
POL_API char* pol_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length);
/* The same as show data: below the policy's own tree instead of beside it. */
POL_API char* pol_show_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length);

/* Appends `size` bytes of text to the NUL-terminated `*buffer` (of pol_malloc) that has `*room`
 * bytes left, growing it when they do not suffice; a buffer that was grown has no room left. 0, or
 * 1 when memory runs out (the buffer stays as it was). */
POL_API uint32_t pol_fwd_policy_append(const char* text, int32_t size, char** buffer,
                                       uint32_t* room);

/* Asks the worker for the text of every policy, list, policer and SLA class that is marked, and
 * takes the mark off; on purpose also when the request cannot be queued, which is logged. */
POL_API void pol_fwd_queue_xml_config(t_pol_ctx* ctx);

/* 1 when the worker has done all that was asked of it; 0 also when a queue cannot be looked at. */
POL_API uint8_t pol_fwd_policy_is_yarrow_updated(void);

#endif
