#!/usr/bin/env python3
"""Builds speaker-rules.tsv from the captured flowspec NLRI of real BGP speakers.

Usage: make-speaker-rules.py PATH/flowspec-nlri.jsonl > speaker-rules.tsv

One row per distinct rule a speaker was told to send (announce and withdraw copies of one
rule give one row). Columns, tab separated:
  id      the capture record
  afi     1 or 2
  text    the match part of what the speaker was told, as the operator typed it
  dst     destination prefix, host bits cleared, or * when the rule has none
  src     source prefix, likewise
  comps   each operator/value component as hex: type byte, then its operator and value
          bytes exactly as the speaker put them on the wire; components separated by spaces
Malformed captures and rules with a non-zero IPv6 prefix offset (which the rule text does
not carry) are left out.
"""
import ipaddress
import json
import re
import sys


def match_text(source, text):
    if source == "gobgp":
        m = re.match(r"match (.*?)(?: then .*)?$", text)
        return m.group(1).strip()
    if source == "bird":
        m = re.match(r"route flow[46] \{ (.*?)\} \{", text)
        return m.group(1).strip()
    if source == "exabgp":
        m = re.search(r"match \{ (.*?)\} then", text)
        return m.group(1).strip()
    raise ValueError(source)


def prefix_text(afi, comp):
    width = 4 if afi == 1 else 16
    raw = bytes.fromhex(comp["prefix_bytes"]).ljust(width, b"\0")
    net = ipaddress.ip_network((raw, comp["prefix_len"]), strict=False)
    return str(net)


def main():
    seen = set()
    for line in open(sys.argv[1]):
        r = json.loads(line)
        if r["malformed"]:
            continue
        comps = r["components"]
        if any(c.get("offset", 0) for c in comps):
            continue
        text = match_text(r["source"], r["input"])
        if (r["source"], text) in seen:
            continue
        seen.add((r["source"], text))
        dst = src = "*"
        ops = []
        for c in comps:
            if c["type"] == 1:
                dst = prefix_text(r["afi"], c)
            elif c["type"] == 2:
                src = prefix_text(r["afi"], c)
            else:
                b = bytes([c["type"]])
                for o in c["ops"]:
                    b += bytes.fromhex(o["op"]) + o["value"].to_bytes(o["len"], "big")
                ops.append(b.hex())
        print("\t".join([r["id"], str(r["afi"]), text, dst, src, " ".join(ops)]))


main()
