/* SPDX-License-Identifier: Apache-2.0
 *
 * pol_yarrow_thread.h - the worker thread that talks to the management agent.
 *
 * The host's threads never wait for the agent: what needs it is queued, and the worker,
 * "pol-yarrow", fetches changed objects into the XML cache and writes labels into data policies. It
 * connects at its first request, once: an agent that is not there then is not asked again in the
 * thread's life. A request that fails is tried five times, 5 seconds apart, and holds up its queue
 * meanwhile.
 */
#ifndef POLICY_POL_YARROW_THREAD_H
#define POLICY_POL_YARROW_THREAD_H

#include "policy/pol_types.h"

/* 1 for good from the first request to a worker on, whether or not the agent could be reached. */
POL_DATA uint8_t g_pol_yarrow_thread_maapi_connected;

/* Starts the worker for the XML cache of g_pol_ctx_p. 0; POL_ESPINLOCK, POL_EPIPE or POL_EEVENT
 * when one of these cannot be had. */
POL_API uint32_t pol_yarrow_thread_init(t_pol_yarrow_thread* thread);

/* Ends the worker and frees the requests it did not come to; waits for the agent's answer to the
 * one it works on, but for no retry. 0, also when none runs; otherwise (POL_ENOMEM, POL_ELOCK,
 * POL_EPIPE) it may still run and needs its state. */
POL_API uint32_t pol_yarrow_thread_deinit(t_pol_yarrow_thread* thread);

/* A queue of the worker's requests: label writes, the fetches that follow them, other fetches. */
#define POL_WORKER_QUEUES 3
typedef struct t_pol_worker_queue {
  uint64_t requests; /* ever queued, as are the next two since the worker's start */
  uint64_t retries;  /* attempts after a request's first */
  uint64_t dropped;  /* requests given up after the last of them */
  uint64_t first_ms; /* that the first has been first: it holds up the others; 0: none waits */
  uint32_t waiting;  /* now, the one that is worked on among them */
} t_pol_worker_queue;

/* An addition to the interface: fills `queues`, POL_WORKER_QUEUES of them, in the order in which
 * the worker takes them. Takes no lock: the numbers of one queue may be a request apart. 0;
 * POL_EINVAL, POL_ENOCTX. */
POL_API uint32_t pol_yarrow_thread_queues(t_pol_ctx* ctx, t_pol_worker_queue* queues);

/* A dump of pol_dump.h: which of the queues hold requests at the moment. */
POL_API int pol_dump_yarrow_thread(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);

#endif
