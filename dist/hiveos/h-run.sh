#!/usr/bin/env bash
# Starts the miner on the settings file h-config.sh wrote, logging to
# $CUSTOM_LOG_BASENAME.log. HiveOS runs this in the miner's screen session and
# runs it again when the miner exits. The miner takes the place of this shell
# (exec), so HiveOS's Ctrl+C reaches it directly: it ramps every board down
# and stops, as the q key does, well within the 15 s HiveOS allows.
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 1
[[ -n $CUSTOM_CONFIG_FILENAME && -n $CUSTOM_LOG_BASENAME ]] || source h-manifest.conf

if [[ ! -f $CUSTOM_CONFIG_FILENAME ]]; then
  echo "ombry-miner: no settings file $CUSTOM_CONFIG_FILENAME (check the flight sheet)" >&2
  exit 1
fi
mkdir -p "$(dirname "$CUSTOM_LOG_BASENAME")"
# Extra words from the flight sheet's user config, split at blanks.
extra=()
args_file=${CUSTOM_CONFIG_FILENAME%.json}.args
[[ -s $args_file ]] && read -r -a extra < "$args_file"
exec ./ombry-miner --config "$CUSTOM_CONFIG_FILENAME" --log-file "$CUSTOM_LOG_BASENAME.log" "${extra[@]}"
