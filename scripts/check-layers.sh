#!/usr/bin/env bash
# Layers call only down: platform -> diag -> reader -> link -> pcsc. Every
# #include "folder/..." in a layer's sources must name its own folder or
# one below it; an include that runs upward is printed and fails the check.
set -euo pipefail
cd "$(dirname "$0")/.."

# Each layer and the folders it may include besides itself.
declare -A allowed=(
  [platform]=""
  [diag]="platform"
  [reader]="diag platform"
  [link]="reader diag platform"
  [pcsc]="link reader diag platform"
)
layers="platform diag reader link pcsc"

bad=0
for layer in $layers; do
  # file:line:#include "folder/name.h"
  while IFS= read -r hit; do
    [ -n "$hit" ] || continue
    target=$(sed -E 's/.*#[[:space:]]*include[[:space:]]*"([^/"]+)\/.*/\1/' <<<"$hit")
    [ "$target" = "$layer" ] && continue
    ok=0
    for lower in ${allowed[$layer]}; do [ "$target" = "$lower" ] && ok=1; done
    # Only folders that are layers are judged; system and third-party
    # headers (<...>, or a bare "name.h") never match the pattern above.
    # A path that climbs out of the folder ("../x") hides its layer: refused.
    case " $layers " in *" $target "*) ;; *) [ "$target" = ".." ] || ok=1 ;; esac
    if [ "$ok" -eq 0 ]; then
      echo "upward include: $hit"
      bad=1
    fi
  done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[^/"]+/' "$layer" \
             --include='*.h' --include='*.hpp' --include='*.cpp' --include='*.c' --include='*.inc' || true)
done

if [ "$bad" -ne 0 ]; then
  echo "layer check failed: platform -> diag -> reader -> link -> pcsc, each includes only itself and layers below" >&2
  exit 1
fi
echo "layer check passed"
