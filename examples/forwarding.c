/* A forwarding agent in small: follows the hardware's IPv4 routes and their adjacencies, resolves each route to its
 * next hops, and says what it would install and remove. While the route-cache agent is away or not done with its
 * restart, it keeps what it has; once the routes are reconciled, what is missing goes.
 *   forwarding RUN_DIRECTORY */
#include <arpa/inet.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "routecache_tables.h"

enum { key_size = 9, text_size = 2048, buckets = 1 << 16 };

struct route {
  struct route *next; /* of its bucket */
  unsigned char key[key_size];
  uint32_t adjacency;
  char nexthops[text_size]; /* as installed; empty: not installed */
};
static struct route *known_routes[buckets];
static size_t installed;
static rct_table *routes, *adjacencies[2]; /* IPv4, IPv6 */
static rct_state known;                    /* of the routes, as told last */

static void check(int result) {
  if (result >= 0) return;
  fprintf(stderr, "forwarding: %s\n", rct_error_text());
  exit(1);
}

static uint32_t number(const unsigned char *bytes) {
  return (uint32_t)bytes[0] << 24 | (uint32_t)bytes[1] << 16 | (uint32_t)bytes[2] << 8 | bytes[3];
}

static void say(const char *what, const struct route *route) {
  const unsigned length = 32u - route->key[4];
  const struct in_addr first = {htonl(length == 0 ? 0 : number(route->key) & ~UINT32_C(0) << (32u - length))};
  printf("%s %s/%u@%u%s\n", what, inet_ntoa(first), length, number(route->key + 5), route->nexthops);
}

/* The adjacency's next hops that are resolved, as a text: nobody forwards to the others. */
static void resolve(uint32_t adjacency, char *text) {
  static const uint32_t other_class[2] = {2, 0}; /* ids of this class do not stand in the table */
  const uint32_t key = htonl(adjacency);
  size_t used = 0;
  text[0] = '\0';
  for (int family = 0; family < 2; ++family) {
    const size_t hop_size = family == 0 ? 28 : 40;
    rct_entry entry;
    if (adjacency >> 30 == other_class[family]) continue;
    if (rct_get(adjacencies[family], &key, sizeof key, &entry) != RCT_OK) continue;
    for (size_t at = 8; at + hop_size <= entry.value_size && used + 80 < text_size; at += hop_size) {
      const unsigned char *hop = entry.value + at;
      char vtep[INET6_ADDRSTRLEN];
      if (number(hop) == 0 && number(hop + 4) == 0) continue; /* no way to it in the underlay yet */
      inet_ntop(family == 0 ? AF_INET : AF_INET6, hop + 24, vtep, sizeof vtep);
      used += (size_t)snprintf(text + used, text_size - used, " %s by %.8s", vtep, (const char *)hop + 16);
    }
  }
}

/* The place of the route, or of the null pointer behind the last one of its bucket. */
static struct route **place_of(const unsigned char *key) {
  uint32_t hash = 2166136261u;
  for (int i = 0; i < key_size; ++i) hash = (hash ^ key[i]) * 16777619u;
  struct route **place = &known_routes[hash % buckets];
  while (*place != NULL && memcmp((*place)->key, key, key_size) != 0) place = &(*place)->next;
  return place;
}

/* Brings one route in line with the tables. */
static void look_at(const unsigned char *key) {
  struct route **const place = place_of(key), *route = *place;
  char nexthops[text_size] = "";
  rct_entry entry;
  const int result = rct_get(routes, key, key_size, &entry);
  check(result);
  if (result == RCT_OK && route == NULL) {
    route = *place = calloc(1, sizeof *route);
    if (route == NULL) abort();
    memcpy(route->key, key, key_size);
  }
  if (route == NULL) return;
  if (result == RCT_OK) resolve(route->adjacency = number(entry.value), nexthops);
  if (nexthops[0] != '\0' && strcmp(nexthops, route->nexthops) != 0) {
    installed += route->nexthops[0] == '\0';
    memcpy(route->nexthops, nexthops, sizeof nexthops);
    say("install", route);
  } else if (nexthops[0] == '\0' && route->nexthops[0] != '\0' && known.reconciled) {
    route->nexthops[0] = '\0';
    --installed;
    say("remove", route);
  }
  if (result == RCT_OK || route->nexthops[0] != '\0') return;
  *place = route->next;
  free(route);
}

/* The same for all routes with this adjacency; 0: for all. */
static void look_at_all(uint32_t adjacency) {
  for (size_t bucket = 0; bucket < buckets; ++bucket) {
    for (struct route *route = known_routes[bucket], *next; route != NULL; route = next) {
      next = route->next;
      if (adjacency == 0 || route->adjacency == adjacency) look_at(route->key);
    }
  }
}

static void look_at_state(void) {
  const rct_state before = known;
  check(rct_table_state(routes, &known, sizeof known));
  const int restarted = before.generation != 0 && before.generation != known.generation;
  if (restarted) printf("restarted: keeping %zu routes\n", installed);
  if (known.writer == RCT_WRITER_GONE && before.writer != known.writer) printf("gone: keeping %zu routes\n", installed);
  if (!known.reconciled || (before.reconciled && !restarted)) return;
  look_at_all(0);
  printf("reconciled: %zu routes\n", installed);
}

int main(int argc, char **argv) {
  rct_session *session;
  rct_cursor *cursor;
  rct_entry entry;
  rct_change changes[256];
  if (argc != 2) return fprintf(stderr, "usage: forwarding RUN_DIRECTORY\n"), 2;
  setvbuf(stdout, NULL, _IOLBF, 0);
  check(rct_open(argv[1], &session));
  check(rct_table_open(session, "routecache/route/hw/ipv4", &routes));
  check(rct_table_open(session, "routecache/adj/ipv4", &adjacencies[0]));
  check(rct_table_open(session, "routecache/adj/ipv6", &adjacencies[1]));
  for (int i = 0; i < 3; ++i) check(rct_follow(i == 0 ? routes : adjacencies[i - 1])); /* first follow, then walk */
  check(rct_walk(routes, NULL, 0, &cursor));
  while (rct_next(cursor, &entry) == RCT_OK) look_at(entry.key);
  rct_cursor_close(cursor);
  look_at_state();
  for (struct pollfd ready = {rct_fd(session), POLLIN, 0}; poll(&ready, 1, -1) >= 0;) {
    const int changed = rct_changes(session, changes, sizeof changes / sizeof *changes);
    check(changed);
    for (int i = 0; i < changed; ++i) {
      if (changes[i].table == routes && changes[i].kind == RCT_KEY) look_at(changes[i].key);
      if (changes[i].table == routes && changes[i].kind == RCT_STATE) look_at_state();
      if (changes[i].table != routes && changes[i].kind == RCT_KEY) look_at_all(number(changes[i].key));
    }
  }
  return 1;
}
