#!/usr/bin/env bash
# Runs every fuzz target of the fuzz build for a bounded time, seeded from its corpus
# folder (fuzz/corpus/<target>) when there is one. FUZZ_SECONDS sets the time per target;
# FUZZ_SECONDS_<target> overrides it for one target. Inputs reach the largest size any caller
# can hand the target (libFuzzer's own default stops at 4096 bytes, below what an UPDATE of
# RFC 8654, a capture or the decode command can carry); FUZZ_MAX_LEN_<target> overrides it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${FUZZ_SECONDS:-15}"
shopt -s nullglob
ran=0
for bin in build/fuzz/fuzz/*Fuzz; do
  name="$(basename "$bin")"
  override="FUZZ_SECONDS_$name"
  time="${!override:-$seconds}"
  case "$name" in
    FlowspecParseNlriFuzz|BgpUpdateDecoderFuzz|BgpMessageFuzz|BgpCaptureFuzz|OriginatedRuleFuzz|UnicastNlriFuzz) max_len=65535 ;;
    ControlRequestFuzz|ApiPathFuzz|ImportPolicyFuzz) max_len=65536 ;;
    MetricsRequestFuzz) max_len=8192 ;;
    *) max_len=4096 ;;
  esac
  override_len="FUZZ_MAX_LEN_$name"
  max_len="${!override_len:-$max_len}"
  work="build/fuzz/corpus-$name"
  mkdir -p "$work"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds+=("fuzz/corpus/$name")
  echo "fuzz: $name for ${time}s, inputs up to $max_len bytes"
  "$bin" -max_total_time="$time" -max_len="$max_len" -print_final_stats=1 "$work" "${seeds[@]}" >"build/fuzz/$name.log" 2>&1 || {
    tail -n 60 "build/fuzz/$name.log"
    echo "fuzz: $name failed"
    exit 1
  }
  grep -E 'stat::number_of_executed_units' "build/fuzz/$name.log" || true
  ran=$((ran + 1))
done
echo "fuzz: $ran targets clean"
