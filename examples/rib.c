/* A routing process in small: makes these IPv4 routes, and no others, the configured ones. As every routing process it
 * comes back to what it left: routes that stand and are wanted stay as they are.
 *   rib RUN_DIRECTORY INTERFACE VNI PREFIX/LENGTH@VRF=VTEP[,VTEP]...
 *   rib /run/routecache Vxlan1 10010 10.1.0.0/16@2=10.255.0.1,10.255.0.2 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "routecache_tables.h"

enum { route_key_size = 22, route_size = 17, via_key_size = 8, hop_size = 37, most_hops = 32 };

static void check(int result) {
  if (result >= 0) return;
  fprintf(stderr, "rib: %s\n", rct_error_text());
  exit(1);
}

static void bad(const char *text) {
  fprintf(stderr, "rib: no route: %s\n", text);
  exit(2);
}

static void put(unsigned char *to, uint64_t number, int size) {
  for (int i = size - 1; i >= 0; --i, number >>= 8) to[i] = number & 255;
}

/* Takes "PREFIX/LENGTH@VRF=" into the key, and returns what follows. */
static char *read_key(char *text, unsigned char *key) {
  char address[16];
  unsigned length, vrf;
  int end = 0;
  memset(key, 0, route_key_size);
  if (sscanf(text, "%15[0-9.]/%u@%u=%n", address, &length, &vrf, &end) != 3 || end == 0) bad(text);
  put(key, vrf, 4);
  key[4] = 1; /* IPv4 */
  if (inet_pton(AF_INET, address, key + 17) != 1 || length > 32) bad(text);
  key[21] = (unsigned char)length;
  return text + end;
}

/* Takes "VTEP,VTEP" into the value of a via, and returns its size. */
static size_t read_via(char *text, const char *interface, unsigned long vni, unsigned char *via) {
  static const unsigned char router_mac[6] = {0x02, 0, 0, 0, 0, 1};
  unsigned count = 0;
  for (char *vtep = strtok(text, ","); vtep != NULL; vtep = strtok(NULL, ","), ++count) {
    unsigned char *hop = via + 2 + count * hop_size;
    if (count == most_hops) bad("more than 32 next hops");
    memset(hop, 0, hop_size);
    hop[0] = 1; /* IPv4 */
    if (inet_pton(AF_INET, vtep, hop + 13) != 1) bad(vtep);
    memcpy(hop + 17, interface, strnlen(interface, 8));
    put(hop + 27, vni, 4);
    memcpy(hop + 31, router_mac, 6);
  }
  put(via, count, 2);
  return 2 + count * hop_size;
}

/* Deletes the entries whose keys are not among these. */
static void keep_only(rct_table *table, const unsigned char *keys, size_t key_size, int count) {
  rct_cursor *cursor;
  rct_entry entry;
  check(rct_walk(table, NULL, 0, &cursor));
  while (rct_next(cursor, &entry) == RCT_OK) {
    int i = 0;
    while (i < count && memcmp(keys + (size_t)i * key_size, entry.key, key_size) != 0) ++i;
    if (i == count) check(rct_delete(table, entry.key, key_size));
  }
  rct_cursor_close(cursor);
}

int main(int argc, char **argv) {
  rct_session *session;
  rct_table *routes, *vias;
  if (argc < 4) return fprintf(stderr, "usage: rib RUN_DIRECTORY INTERFACE VNI PREFIX@VRF=VTEP,...\n"), 2;
  const int count = argc - 4;
  unsigned char *keys = calloc((size_t)count + 1, route_key_size), *via_keys = calloc((size_t)count + 1, via_key_size);
  if (keys == NULL || via_keys == NULL) abort();
  check(rct_open(argv[1], &session));
  check(rct_table_write(session, "routing/rib/viaConfig/evpn/staticRouteCacheConfig", 65536, &vias));
  check(rct_table_write(session, "routing/rib/routeConfig/ipv4/staticRouteCacheConfig", 65536, &routes));
  for (int i = 0; i < count; ++i) {
    unsigned char via[2 + most_hops * hop_size], route[route_size] = {0}, *key = keys + i * route_key_size;
    const size_t size = read_via(read_key(argv[4 + i], key), argv[2], strtoul(argv[3], NULL, 10), via);
    put(via_keys + i * via_key_size, (uint64_t)i + 1, via_key_size);
    put(route, (uint64_t)i + 1, 8);
    check(rct_set(vias, via_keys + i * via_key_size, via_key_size, via, size)); /* a route's via first, */
    check(rct_set(routes, key, route_key_size, route, route_size));
  }
  keep_only(routes, keys, route_key_size, count); /* and last when they go */
  keep_only(vias, via_keys, via_key_size, count);
  check(rct_reconcile(vias));
  check(rct_reconcile(routes));
  rct_close(session);
  free(keys), free(via_keys);
  return 0;
}
