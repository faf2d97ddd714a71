#!/usr/bin/env python3
"""A BGP speaker that announces many EVPN routes of type 5 (IP prefixes), and stays.

speaker.py OWN-ADDRESS PEER-ADDRESS OWN-AS VTEP VNI ROUTER-MAC COUNT: prefixes from 20.0.0.0/24 on, and the VTEP itself
as a route of the underlay. Says "established" and "announced" on standard output. Attributes and encodings are those of
RFC 4271, 4760, 7432 and 9136.
"""
import ipaddress
import socket
import struct
import sys
import threading
import time

OPEN, UPDATE, KEEPALIVE = 1, 2, 4
EVPN = struct.pack(">HBB", 25, 0, 70)
UNICAST = struct.pack(">HBB", 1, 0, 1)
ROUTES_PER_MESSAGE = 100  # 36 bytes each, of 4096


def message(kind, body=b""):
    return b"\xff" * 16 + struct.pack(">HB", 19 + len(body), kind) + body


def attribute(flags, kind, value):
    return struct.pack(">BBH", flags | 0x10, kind, len(value)) + value


def open_message(autonomous_system, router_id):
    capabilities = b"".join(
        struct.pack(">BB", code, len(value)) + value
        for code, value in ((1, EVPN), (1, UNICAST), (65, struct.pack(">I", autonomous_system)))
    )
    parameters = struct.pack(">BB", 2, len(capabilities)) + capabilities
    return message(OPEN, struct.pack(">BHH4sB", 4, autonomous_system, 90, router_id, len(parameters)) + parameters)


def common(autonomous_system):
    return attribute(0x40, 1, b"\0") + attribute(0x40, 2, struct.pack(">BBI", 2, 1, autonomous_system))


def underlay(autonomous_system, own, vtep):
    attributes = common(autonomous_system) + attribute(0x40, 3, own)
    return message(UPDATE, struct.pack(">HH", 0, len(attributes)) + attributes + b"\x20" + vtep)


def type5(router_id, prefix, vni):
    distinguisher = struct.pack(">H4sH", 1, router_id, 1)
    label = vni.to_bytes(3, "big")
    return b"\x05\x22" + distinguisher + bytes(10) + bytes(4) + b"\x18" + prefix + bytes(4) + label


def overlay(autonomous_system, router_id, vtep, vni, mac, prefixes):
    communities = struct.pack(">BBHI", 0, 2, autonomous_system, vni)  # route target
    communities += struct.pack(">BB4xH", 3, 12, 8)  # encapsulation: VXLAN
    communities += struct.pack(">BB6s", 6, 3, mac)  # router MAC
    routes = b"".join(type5(router_id, prefix, vni) for prefix in prefixes)
    reach = EVPN[:2] + EVPN[3:] + b"\x04" + vtep + b"\0" + routes
    attributes = common(autonomous_system) + attribute(0xC0, 16, communities) + attribute(0x80, 14, reach)
    return message(UPDATE, struct.pack(">HH", 0, len(attributes)) + attributes)


def received(connection):
    header = connection.recv(19, socket.MSG_WAITALL)
    if len(header) < 19:
        sys.exit("the peer has closed the session")
    length, kind = struct.unpack(">HB", header[16:])
    if length > 19:
        connection.recv(length - 19, socket.MSG_WAITALL)
    return kind


def listen(connection):
    while True:
        received(connection)


def main():
    own, peer, vtep = (ipaddress.ip_address(sys.argv[i]).packed for i in (1, 2, 4))
    autonomous_system, vni, count = int(sys.argv[3]), int(sys.argv[5]), int(sys.argv[7])
    mac = bytes.fromhex(sys.argv[6].replace(":", ""))
    while True:
        try:
            connection = socket.create_connection((sys.argv[2], 179), 5, (sys.argv[1], 0))
            break
        except OSError:
            time.sleep(0.2)
    connection.settimeout(None)
    connection.sendall(open_message(autonomous_system, own))
    while received(connection) != KEEPALIVE:
        connection.sendall(message(KEEPALIVE))
    print("established", flush=True)
    threading.Thread(target=listen, args=(connection,), daemon=True).start()
    connection.sendall(underlay(autonomous_system, own, vtep))
    prefixes = [((20 << 24) + (i << 8)).to_bytes(4, "big") for i in range(count)]
    for i in range(0, count, ROUTES_PER_MESSAGE):
        connection.sendall(overlay(autonomous_system, own, vtep, vni, mac, prefixes[i : i + ROUTES_PER_MESSAGE]))
    print("announced", flush=True)
    while True:
        time.sleep(2)  # the peer waits for nine
        connection.sendall(message(KEEPALIVE))


main()
