#!/usr/bin/env bash
# Sets khs (the total in kH/s) and stats (JSON) for HiveOS from the miner's
# JSON API on 127.0.0.1:$CUSTOM_API_PORT. Per board, in the API's order: hs
# (the nominal rate at the board's clock, in MH/s), temp (null where the board
# gives no reading) and bus_numbers (the PCI bus, decimal; the board's number
# where the system names no PCI address). fan is empty: the boards have none.
# HiveOS sources this file, so it never exits.

ombry_api() {
  nc -w 2 127.0.0.1 "$CUSTOM_API_PORT" <<< "$1" 2> /dev/null
}

ombry_read_stats() {
  [[ -n $CUSTOM_API_PORT ]] || source "$(dirname "${BASH_SOURCE[0]}")/h-manifest.conf"
  local summary devs version
  summary=$(ombry_api summary) && devs=$(ombry_api devs) && version=$(ombry_api version) || return
  stats=$(jq -cn --argjson summary "$summary" --argjson devs "$devs" --argjson version "$version" '
    def hex: ascii_downcase | explode | reduce .[] as $c (0; . * 16 + (if $c >= 97 then $c - 87 else $c - 48 end));
    $summary.SUMMARY[0] as $run | $devs.DEVS as $boards |
    {hs: [$boards[] | ."Nominal MHS"], hs_units: "mhs",
     temp: [$boards[] | .Temperature], fan: [],
     uptime: $run.Elapsed,
     ver: ($version.VERSION[0].Miner | sub("^ombry-miner "; "")),
     ar: [$run.Accepted, $run.Rejected, $run."Hardware Errors"],
     algo: "eaglesong",
     bus_numbers: [$boards[] | if ."PCI Address" then (."PCI Address" | split(":")[1] | hex) else .ID end]}' \
    2> /dev/null) || { stats=""; return; }
  khs=$(jq '[.hs[]] | add // 0 | . * 1000' <<< "$stats")
}

khs=""
stats=""
ombry_read_stats
unset -f ombry_api ombry_read_stats
[[ -z $khs ]] && khs=0
[[ -z $stats ]] && stats="null"
