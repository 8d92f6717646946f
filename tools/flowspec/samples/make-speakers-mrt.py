#!/usr/bin/env python3
"""Builds speakers.mrt from the captured flowspec UPDATEs of real BGP speakers.

Usage: make-speakers-mrt.py PATH/flowspec-nlri.jsonl > speakers.mrt

One MRT record (RFC 6396, BGP4MP_MESSAGE_AS4) per distinct UPDATE, in capture order, as a
receiver at 127.0.0.100 (AS 65000) would dump them: GoBGP speaks from 127.0.0.1 (AS 65001),
BIRD from 127.0.0.2 (AS 65002), ExaBGP from 127.0.0.3 (AS 65003).
"""
import json
import struct
import sys

PEERS = {"gobgp": (1, 65001), "bird": (2, 65002), "exabgp": (3, 65003)}

out = sys.stdout.buffer
seen = set()
for n, line in enumerate(open(sys.argv[1])):
    r = json.loads(line)
    message = bytes.fromhex(r["update_hex"])
    if message in seen:
        continue
    seen.add(message)
    host, asn = PEERS[r["source"]]
    body = struct.pack("!IIHH4s4s", asn, 65000, 0, 1, bytes([127, 0, 0, host]), bytes([127, 0, 0, 100])) + message
    out.write(struct.pack("!IHHI", 1700000000 + n, 16, 4, len(body)) + body)
