/* SPDX-License-Identifier: Apache-2.0
 *
 * A routing daemon in small: follows an agent's configuration and says, after every commit, what a
 * policy makes of one prefix.
 *
 *   follow PORT POLICY ADDRESS LENGTH [COMMITS]
 *
 * ends when the agent does, or after as many commits.
 */
#include <arpa/inet.h>
#include <policy-host/pol_host.h>
#include <policy/policy.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <yarrow/yarrow_changes.h>

/* Runs while a batch is walked, whenever something that the policy uses has changed. */
static void policy_changed(t_pol_user* user, uint64_t user_arg) {
  (void)user;
  *(int*)(uintptr_t)user_arg = 1;
}

/* A policy that sets a TLOC accepts only where it leads somewhere. Here every TLOC can be reached; a
 * daemon looks into its table. */
static void resolve_tloc(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                         uint16_t service, t_pol_tloc_result* result) {
  t_pol_tloc_result_entry* entry = &result->entry[result->count];
  (void)id, (void)vpn, (void)service;
  if (result->count == POL_MAX_TLOC) return;
  memset(entry, 0, sizeof *entry);
  entry->tloc.family = KEL_AF_INET;
  entry->tloc.addr.v4 = ipv4;
  entry->tloc.color = color;
  entry->tloc.encap = encap;
  ++result->count;
}

static int subscribe(uint16_t port) {
  struct sockaddr_in agent;
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  memset(&agent, 0, sizeof agent);
  agent.sin_family = AF_INET;
  agent.sin_port = htons(port);
  agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (sock >= 0 && yarrow_sub_connect(sock, (const struct sockaddr*)&agent, sizeof agent, "/policy",
                                      YARROW_SUB_INITIAL) == YARROW_OK) {
    return sock;
  }
  fprintf(stderr, "follow: port %u: %s (expected an agent)\n", (unsigned)port, yarrow_lasterr());
  return -1;
}

static void decide(t_pol_user* user, uint32_t address, uint8_t length) {
  t_pol_route_attr attr;
  t_pol_route_query query;
  uint32_t action;

  memset(&attr, 0, sizeof attr);
  pol_pre_execute(&query, POL_KIND_ROUTE);
  query.attr = &attr;
  query.match_type = POL_MATCH_ROUTE;
  query.prefix.addr.family = KEL_AF_INET;
  query.prefix.addr.addr.v4 = address;
  query.prefix.len = length;
  action = pol_execute(user, &query);
  printf("%u.%u.%u.%u/%u %s\n", address >> 24, address >> 16 & 255, address >> 8 & 255,
         address & 255, length, pol_util_action_str(action));
  pol_post_execute(&query);
}

int main(int argc, char** argv) {
  t_pol_callbacks callbacks = {NULL};
  t_pol_registration registration;
  t_pol_user* user;
  t_pol_ctx* ctx;
  t_pol_host_walk* walk;
  t_yarrow_batch* batch = NULL;
  struct in_addr address;
  int changed = 0;
  int sock;
  long batches = argc == 6 ? 1 + atol(argv[5]) : -1; /* negative: all there are */

  if (argc < 5 || argc > 6 || inet_pton(AF_INET, argv[3], &address) != 1) {
    fprintf(stderr, "usage: follow PORT POLICY ADDRESS LENGTH [COMMITS]\n");
    return 2;
  }
  sock = subscribe((uint16_t)atoi(argv[1]));
  if (sock < 0) return 1;
  ctx = pol_init(&callbacks);
  walk = pol_host_walk_new(ctx);
  if (walk == NULL) return 1;

  memset(&registration, 0, sizeof registration);
  strcpy(registration.user_name, "follow");
  strncpy(registration.policy_name, argv[2], sizeof registration.policy_name - 1);
  registration.kind = POL_KIND_ROUTE;
  registration.direction = POL_DIR_IN;
  registration.change = policy_changed;
  registration.resolve = resolve_tloc;
  registration.user_arg = (uint64_t)(uintptr_t)&changed;
  user = pol_register(&registration);

  /* The first batch makes the present configuration; each one after it is a commit. */
  while (user != NULL && batches != 0 && yarrow_sub_read(sock, -1, &batch) == 1) {
    if (batches > 0) --batches;
    if (pol_host_walk_take(walk, batch) != POL_OK) return 1;
    printf("commit %lld: %s\n", (long long)yarrow_batch_commit_id(batch),
           changed ? "the policy changed" : "nothing that the policy uses");
    yarrow_batch_free(batch);
    changed = 0;
    decide(user, ntohl(address.s_addr), (uint8_t)atoi(argv[4]));
    fflush(stdout);
  }

  pol_unregister(&user);
  pol_host_walk_free(walk);
  pol_destroy();
  close(sock);
  return 0;
}
