#!/bin/sh
# Renames the Windows functions that sim/ defines in copies of objects or static archives.
#
#   sim_symbols.sh NM OBJCOPY SIM IN OUT [IN OUT ...]
#
# SIM is the simulation as one archive (or object). For each symbol __imp_sim_NAME in it, every OUT uses sim_NAME where
# its IN uses NAME. A simulated function needs no entry in any list. Works with GNU and with LLVM nm and objcopy.
set -eu

nm=$1
objcopy=$2
sim=$3
shift 3
map=$(mktemp)
trap 'rm -f "$map"' EXIT

"$nm" "$sim" | sed -n 's/^.* [Dd] __imp_sim_\([A-Za-z0-9_]*\)$/\1/p' | sort -u |
  sed 's/.*/& sim_&\n__imp_& __imp_sim_&/' > "$map"
if [ ! -s "$map" ]; then
  echo "sim_symbols.sh: $sim defines no simulated function" >&2
  exit 1
fi
while [ $# -ge 2 ]; do
  "$objcopy" --redefine-syms="$map" "$1" "$2"
  shift 2
done
