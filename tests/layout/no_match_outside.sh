#!/usr/bin/env bash
# A rule of the source tree: no source file below DIR but the ones named
# (paths relative to DIR) holds a line that PATTERN (an extended regular
# expression) matches. Exits 1 naming RULE and each line that does, 2 when
# an allowed file is missing (the rule would pass by mistake).
#   no_match_outside.sh RULE PATTERN DIR [ALLOWED...]
set -u
rule=${1:?usage: no_match_outside.sh RULE PATTERN DIR [ALLOWED...]}
pattern=${2:?}
dir=${3:?}
shift 3
found=$(grep -rnE --include='*.cc' --include='*.h' "$pattern" "$dir")
for allowed in "$@"; do
  [ -f "$dir/$allowed" ] || { echo "no $allowed in $dir" >&2; exit 2; }
  found=$(printf '%s\n' "$found" | grep -v "^$dir/$allowed:")
done
found=$(printf '%s\n' "$found" | sed '/^$/d')
if [ -n "$found" ]; then
  echo "$rule:"
  echo "$found"
  exit 1
fi
exit 0
