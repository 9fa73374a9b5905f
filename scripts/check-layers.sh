#!/usr/bin/env bash
# Checks that folders are layers: a file under src/ includes only from its own folder, from the
# folders below it, and from include/. kesttcs-cli (src/tools) uses public headers only. Prints
# each wrong include and exits 1 when there is one.
set -euo pipefail
cd "$(dirname "$0")/.."

# Bottom first; a folder's rank is its place in this list.
layers=(base tpm12 tpm contexts storage keys commands rpc/dcerpc rpc service client tools)

# The rank of the longest layer folder that holds `path`, or -1.
rank_of() {
  local path="$1" best=-1 longest=0 i
  for i in "${!layers[@]}"; do
    case "$path" in
      "${layers[$i]}"/*)
        if [ "${#layers[$i]}" -gt "$longest" ]; then
          best=$i
          longest=${#layers[$i]}
        fi
        ;;
    esac
  done
  echo "$best"
}

status=0
while IFS= read -r file; do
  own_path="${file#src/}"
  own=$(rank_of "$own_path")
  if [ "$own" -lt 0 ]; then
    echo "check-layers: $file is in no layer (add its folder to scripts/check-layers.sh)"
    status=1
    continue
  fi
  while IFS=: read -r line target; do
    target_rank=$(rank_of "$target")
    if [ "${layers[$own]}" = tools ] && [ "${target%%/*}" != tools ]; then
      echo "check-layers: $file:$line includes \"$target\"; the CLI uses public headers only"
      status=1
    elif [ "$target_rank" -lt 0 ]; then
      echo "check-layers: $file:$line includes \"$target\", which is in no layer"
      status=1
    elif [ "$target_rank" -gt "$own" ]; then
      echo "check-layers: $file:$line includes \"$target\" from a layer above its own (${layers[$own]})"
      status=1
    fi
  done < <(grep -n '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$file" |
             sed 's/^\([0-9]*\):[^"]*"\([^"]*\)".*/\1:\2/')
done < <(git ls-files 'src/*.h' 'src/*.cc' 'src/*.c')
[ "$status" -eq 0 ] && echo "check-layers: every include goes down or sideways"
exit "$status"
