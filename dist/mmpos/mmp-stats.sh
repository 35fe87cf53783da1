#!/usr/bin/env bash
# Prints the statistics mmpOS reads, from the miner's JSON API on
# 127.0.0.1:$EXTERNAL_API_PORT, and nothing else. mmpOS calls it with the
# number of devices and the miner's log file. Per board, in the API's order:
# busid (the PCI address; the board's number where the system names none),
# hash (the nominal rate at the board's clock, in units: MH/s) and temp (null
# where the board gives no reading); air is the run's [accepted, invalid,
# rejected]. While the miner does not answer, each of the devices mmpOS
# counted shows 0.
source "$(dirname "${BASH_SOURCE[0]}")/mmp-external.conf"
device_count=${1:-0}
[[ $device_count =~ ^[0-9]+$ ]] || device_count=0

api() {
  nc -w 2 127.0.0.1 "$EXTERNAL_API_PORT" <<< "$1" 2> /dev/null
}

if summary=$(api summary) && devs=$(api devs) &&
  jq -cn --argjson summary "$summary" --argjson devs "$devs" --arg version "$EXTERNAL_VERSION" '
    $summary.SUMMARY[0] as $run | $devs.DEVS as $boards |
    {busid: [$boards[] | ."PCI Address" // .ID], hash: [$boards[] | ."Nominal MHS"], units: "mhs",
     air: [$run.Accepted, $run."Hardware Errors", $run.Rejected], temp: [$boards[] | .Temperature],
     miner_name: "ombry-miner", miner_version: $version}' 2> /dev/null; then
  exit 0
fi
jq -cn --argjson count "$device_count" --arg version "$EXTERNAL_VERSION" '
  {busid: [range(1; $count + 1)], hash: [range($count) | 0], units: "mhs", air: [0, 0, 0],
   temp: [range($count) | null], miner_name: "ombry-miner", miner_version: $version}'
