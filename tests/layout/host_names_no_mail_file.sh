#!/usr/bin/env bash
# The host drives the mail back-end through its interface only: no source
# of the host names a file's path key or the file tables of the sendmail
# family. init.cc is the exception: it writes a sandbox's configuration,
# whose keys are the back-end's. Exits 1 naming each line that does.
set -u
dir=${1:?usage: host_names_no_mail_file.sh ZELPNL_SOURCE_DIR}
[ -f "$dir/ops/host.cc" ] || { echo "no host.cc in $dir" >&2; exit 2; }
names='"sendmail-[a-z]+"|email/(tables|file_views|sendmail_like)\.h|\b(VirtualUserTable|AliasTable|AccessDb|LocalHostNames)\b|SendmailLikeInterface'
found=$(grep -nE "$names" "$dir"/*/*.cc "$dir"/*/*.h | grep -v "^$dir/cli/init.cc:")
if [ -n "$found" ]; then
  echo "The host names a mail file or table:"
  echo "$found"
  exit 1
fi
exit 0
