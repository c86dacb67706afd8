#!/usr/bin/env bash
# The host's SQL lives in one file (panel_rows.cc), so that a change of the
# panel's schema is a change there: no other source of the host may hold a
# statement. Exits 1 naming each line that does.
set -u
dir=${1:?usage: sql_in_panel_rows_only.sh ZELPNL_SOURCE_DIR}
[ -f "$dir/ops/panel_rows.cc" ] || { echo "no panel_rows.cc in $dir" >&2; exit 2; }
statements='\b(SELECT|INSERT[[:space:]]+INTO|UPDATE[[:space:]]+[a-z_]+[[:space:]]+SET|DELETE[[:space:]]+FROM|CREATE[[:space:]]+TABLE|ALTER[[:space:]]+TABLE|DROP[[:space:]]+TABLE)\b|\.Query\('
found=$(grep -nE "$statements" "$dir"/*/*.cc "$dir"/*/*.h | grep -v "^$dir/ops/panel_rows.cc:")
if [ -n "$found" ]; then
  echo "SQL outside panel_rows.cc:"
  echo "$found"
  exit 1
fi
exit 0
