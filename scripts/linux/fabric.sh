# A fabric in network namespaces, for scripts/demo-linux: two leafs that are connected to a spine by two links each, FRR
# on all three, and a host behind each leaf in each of two VRFs. Sourced; $work is a directory, $frr where FRR's daemons
# are.
#
#   host-1-red ──┐                                  ┌── host-2-red      10.LEAF.0.5 in both VRFs
#                leaf-1 ══ spine ══ leaf-2
#   host-1-blue ─┘          │                       └── host-2-blue     VTEP 10.255.0.LEAF
#                        speaker
#
# The kernel need not have VRF devices: a VRF is a routing table that rules lead to, by the host's link, and by the VNI
# of packets out of tunnels. FRR has a network namespace for each of its VRFs, and in there what it takes a VRF to have:
# a VXLAN device of the VRF's VNI in a bridge. No packet ever goes through these.

declare -A vni=([red]=10010 [blue]=10020) vlan=([red]=10 [blue]=20) table=([red]=1001 [blue]=1002)
fabric=rc$$ # what names of namespaces begin with
namespaces=(spine speaker leaf-{1,2} vrf-{1,2}-{red,blue} host-{1,2}-{red,blue})

in_ns() { # in_ns NAMESPACE COMMAND...
  local name=$1
  shift
  ip netns exec "$fabric-$name" "$@"
}
ip_in() { # ip_in NAMESPACE ARGUMENTS...
  local name=$1
  shift
  ip -n "$fabric-$name" "$@"
}
link() { # link NAMESPACE NAME NAMESPACE NAME: a cable
  ip_in "$1" link add "$2" type veth peer name "$4" netns "$fabric-$3"
  ip_in "$1" link set "$2" up
  ip_in "$3" link set "$4" up
}
router_mac() { echo "02:00:00:00:0$1:01"; }

missing_fabric() { # says what this machine lacks, or nothing
  [ "$(id -u)" -eq 0 ] || { echo "root"; return; }
  ip netns add "$fabric-probe" 2>/dev/null || { echo "network namespaces"; return; }
  ip -n "$fabric-probe" link set lo up
  if ! ip -n "$fabric-probe" link add probe type vxlan external dstport 4789 2>/dev/null; then
    echo "VXLAN devices"
  elif ! ip -n "$fabric-probe" link add bridge type bridge 2>/dev/null; then
    echo "bridges"
  elif ! ip -n "$fabric-probe" nexthop add id 1 blackhole 2>/dev/null; then
    echo "next-hop objects"
  fi
  ip netns del "$fabric-probe"
}

cable_leaf() { # cable_leaf NUMBER
  local leaf=leaf-$1 i
  for i in 0 1; do
    link "$leaf" "up$i" spine "leaf$1$i"
    ip_in "$leaf" addr add "192.168.$1.$((4 * i + 1))/30" dev "up$i"
    ip_in spine addr add "192.168.$1.$((4 * i + 2))/30" dev "leaf$1$i"
  done
  ip_in "$leaf" addr add "10.255.0.$1/32" dev lo
  in_ns "$leaf" sysctl -qw net.ipv4.ip_forward=1 net.ipv4.conf.all.rp_filter=0 net.ipv4.conf.default.rp_filter=0
  ip_in "$leaf" link add vx address "$(router_mac "$1")" type vxlan external dstport 4789
  ip_in "$leaf" link set vx up
}

add_host() { # add_host LEAF VRF
  local leaf=leaf-$1 host=host-$1-$2
  link "$leaf" "$2" "$host" eth0
  ip_in "$host" addr add "10.$1.0.5/24" dev eth0
  ip_in "$host" route add default via "10.$1.0.1"
  ip_in "$leaf" addr add "10.$1.0.1/24" dev "$2" noprefixroute
  ip_in "$leaf" route add "10.$1.0.0/24" dev "$2" table "${table[$2]}"
  ip_in "$leaf" rule add iif "$2" lookup "${table[$2]}"
  ip_in "$leaf" rule add iif vx tun_id "${vni[$2]}" lookup "${table[$2]}"
  # A packet that its VRF has no route for must not come upon those of the machine.
  ip_in "$leaf" route add unreachable default metric 4294967295 table "${table[$2]}"
}

add_control_vrf() { # add_control_vrf LEAF VRF
  local leaf=leaf-$1 vrf=vrf-$1-$2
  ip_in "$leaf" link add "vni-$2" type vxlan id "${vni[$2]}" dstport 4790 local "10.255.0.$1" nolearning
  ip_in "$leaf" link set "vni-$2" netns "$fabric-$vrf"
  ip_in "$vrf" link add bridge address "$(router_mac "$1")" type bridge
  ip_in "$vrf" link set "vni-$2" master bridge addrgenmode none
  ip_in "$vrf" link set "vni-$2" up
  ip_in "$vrf" link set bridge up
  ip_in "$vrf" link add hosts type veth peer name hosts-peer
  ip_in "$vrf" link set hosts up
  ip_in "$vrf" link set hosts-peer up
  ip_in "$vrf" addr add "10.$1.0.1/24" dev hosts
}

build_fabric() {
  local name leaf vrf
  for name in "${namespaces[@]}"; do
    ip netns add "$fabric-$name"
    ip_in "$name" link set lo up
  done
  in_ns spine sysctl -qw net.ipv4.ip_forward=1
  link speaker eth0 spine speaker
  ip_in speaker addr add 192.168.3.1/30 dev eth0
  ip_in spine addr add 192.168.3.2/30 dev speaker
  for leaf in 1 2; do
    cable_leaf "$leaf"
    for vrf in red blue; do
      add_control_vrf "$leaf" "$vrf"
      add_host "$leaf" "$vrf"
    done
  done
}

remove_fabric() {
  local name
  for name in "${namespaces[@]}"; do ip netns del "$fabric-$name" 2>/dev/null || true; done
}

# --- FRR -------------------------------------------------------------------------------------------------------------

spine_config() {
  local leaf i
  cat <<CONFIG
router bgp 65100
 bgp router-id 10.255.0.100
 no bgp ebgp-requires-policy
 no bgp default ipv4-unicast
 neighbor fabric peer-group
 neighbor fabric advertisement-interval 0
 neighbor fabric timers 3 9
 neighbor fabric timers connect 1
 neighbor 192.168.3.1 remote-as 65003
 neighbor 192.168.3.1 peer-group fabric
CONFIG
  for leaf in 1 2; do
    for i in 1 5; do
      echo " neighbor 192.168.$leaf.$i remote-as 6500$leaf"
      echo " neighbor 192.168.$leaf.$i peer-group fabric"
    done
  done
  cat <<CONFIG
 address-family ipv4 unicast
  neighbor fabric activate
 exit-address-family
 address-family l2vpn evpn
  neighbor fabric activate
  neighbor fabric attribute-unchanged next-hop
 exit-address-family
CONFIG
}

leaf_config() { # leaf_config NUMBER
  local i vrf
  cat <<CONFIG
router bgp 6500$1
 bgp router-id 10.255.0.$1
 no bgp ebgp-requires-policy
 no bgp default ipv4-unicast
CONFIG
  for i in 2 6; do
    echo " neighbor 192.168.$1.$i remote-as 65100"
    echo " neighbor 192.168.$1.$i advertisement-interval 0"
    echo " neighbor 192.168.$1.$i timers 3 9"
    echo " neighbor 192.168.$1.$i timers connect 1"
  done
  cat <<CONFIG
 address-family ipv4 unicast
  network 10.255.0.$1/32
  neighbor 192.168.$1.2 activate
  neighbor 192.168.$1.6 activate
 exit-address-family
 address-family l2vpn evpn
  neighbor 192.168.$1.2 activate
  neighbor 192.168.$1.6 activate
  advertise-all-vni
 exit-address-family
CONFIG
  for vrf in red blue; do
    cat <<CONFIG
router bgp 6500$1 vrf $vrf
 bgp router-id 10.255.0.$1
 no bgp ebgp-requires-policy
 address-family ipv4 unicast
  redistribute connected
  redistribute kernel
 exit-address-family
 address-family l2vpn evpn
  advertise ipv4 unicast
 exit-address-family
CONFIG
  done
}

start_frr() { # start_frr spine|leaf-NUMBER: where it runs already it is killed and started again
  local name=$1 home=$work/frr-$1 zebra=() vrf
  stop_frr "$name"
  mkdir -p "$home/netns"
  {
    echo "log file $home/zebra.log"
    if [ "$name" != spine ]; then
      for vrf in red blue; do printf 'vrf %s\n vni %s\nexit-vrf\n' "$vrf" "${vni[$vrf]}"; done
    fi
  } >"$home/zebra.conf"
  {
    echo "log file $home/bgpd.log"
    if [ "$name" = spine ]; then spine_config; else leaf_config "${name#leaf-}"; fi
  } >"$home/bgpd.conf"
  [ "$name" = spine ] || zebra=(-n -M fpm:netlink)
  chown -R frr:frr "$home"
  # FRR's VRFs are the namespaces that it finds under /run/netns: it must find those of its own leaf, by the VRFs' names.
  nsenter --net="/run/netns/$fabric-$name" unshare --mount --propagation private bash -euc '
    name=$1 home=$2 fabric=$3 frr=$4
    shift 4
    mount -t tmpfs none "$home/netns"
    if [ "$name" != spine ]; then
      for vrf in red blue; do
        touch "$home/netns/$vrf"
        mount --bind "/run/netns/$fabric-vrf-${name#leaf-}-$vrf" "$home/netns/$vrf"
      done
    fi
    mount --rbind "$home/netns" /run/netns
    own=(-d -A 127.0.0.1 -z "$home/zserv" --vty_socket "$home")
    "$frr/zebra" "${own[@]}" -i "$home/zebra.pid" -f "$home/zebra.conf" -K 60 "$@"
    "$frr/bgpd" "${own[@]}" -i "$home/bgpd.pid" -f "$home/bgpd.conf"
  ' bash "$name" "$home" "$fabric" "$frr" "${zebra[@]}" >>"$home/start.log" 2>&1
}

stop_frr() { # stop_frr NAME: as a crash does
  local pid
  for pid in "$work/frr-$1"/{bgpd,zebra}.pid; do
    [ ! -s "$pid" ] || kill -9 "$(cat "$pid")" 2>/dev/null || true
    rm -f "$pid"
  done
}
