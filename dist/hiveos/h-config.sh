#!/usr/bin/env bash
# Writes the miner's settings file ($CUSTOM_CONFIG_FILENAME) from the flight
# sheet: CUSTOM_URL (one or more pools, blank- or comma-separated, the first
# the primary), CUSTOM_TEMPLATE (wallet.worker, %WORKER_NAME% replaced),
# CUSTOM_PASS, CUSTOM_ALGO and CUSTOM_USER_CONFIG (a JSON object of further
# settings, merged in; anything else is extra command-line words for
# h-run.sh). HiveOS sources this file, so it never exits.

ombry_write_config() {
  local here
  here=$(dirname "${BASH_SOURCE[0]}")
  [[ -n $CUSTOM_CONFIG_FILENAME && -n $CUSTOM_API_PORT ]] || source "$here/h-manifest.conf"

  local -a urls=()
  local text=${CUSTOM_URL//[,$'\r']/ }
  read -r -a urls <<< "${text//$'\n'/ }"
  if [[ ${#urls[@]} -eq 0 ]]; then
    echo "ombry-miner: the flight sheet names no pool (CUSTOM_URL)" >&2
    return
  fi
  local i
  for i in "${!urls[@]}"; do
    [[ ${urls[$i]} == *://* ]] || urls[$i]="stratum+tcp://${urls[$i]}"
  done
  # The primary's port stands in the positional place too; the URL's wins.
  local port=""
  [[ ${urls[0]} =~ :([0-9]+)$ ]] && port=${BASH_REMATCH[1]}
  [[ -n $port ]] || echo "ombry-miner: pool ${urls[0]} has no port" >&2

  case ${CUSTOM_ALGO:-ckb} in
    ckb | eaglesong) ;;
    *) echo "ombry-miner: mines ckb (eaglesong) only, not $CUSTOM_ALGO" >&2 ;;
  esac

  local user_json='{}' args_file=${CUSTOM_CONFIG_FILENAME%.json}.args
  rm -f "$args_file"
  if [[ -n $CUSTOM_USER_CONFIG ]]; then
    if jq -e 'type == "object"' <<< "$CUSTOM_USER_CONFIG" > /dev/null 2>&1; then
      user_json=$CUSTOM_USER_CONFIG
    else
      printf '%s\n' "${CUSTOM_USER_CONFIG//$'\n'/ }" > "$args_file"
    fi
  fi

  mkdir -p "$(dirname "$CUSTOM_CONFIG_FILENAME")"
  jq -n --arg host "${urls[0]}" --arg port "$port" --arg wallet "${CUSTOM_TEMPLATE//%WORKER_NAME%/$WORKER_NAME}" \
    --arg password "${CUSTOM_PASS:-x}" --arg api "127.0.0.1:$CUSTOM_API_PORT" --argjson user "$user_json" \
    '{algorithm: "ckb", host: $host, wallet: $wallet, password: $password, "api-listen": $api}
     + (if $port == "" then {} else {port: ($port | tonumber)} end)
     + (if ($ARGS.positional | length) > 0 then {pool: $ARGS.positional} else {} end)
     + $user' --args "${urls[@]:1}" > "$CUSTOM_CONFIG_FILENAME.new" &&
    mv "$CUSTOM_CONFIG_FILENAME.new" "$CUSTOM_CONFIG_FILENAME"
}

ombry_write_config
unset -f ombry_write_config
