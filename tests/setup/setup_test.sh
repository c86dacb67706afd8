#!/usr/bin/env bash
# The set-up script's own test. It runs scripts/setup with stand-ins for the
# commands it calls (dpkg-query, apt-get, id, hostname) first on PATH and with
# its policy and hosts files moved into a scratch folder, so that the branch
# that installs packages runs on every CI machine, where everything is
# installed already, and nothing of the real system is touched.
#   setup_test.sh SCRIPT SCRATCH
set -uo pipefail

script=${1:?usage: setup_test.sh SCRIPT SCRATCH}
scratch=${2:?usage: setup_test.sh SCRIPT SCRATCH}
work=$scratch/setup-test.$$
rm -rf "$work"
mkdir -p "$work/bin"
trap 'rm -rf "$work"' EXIT

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# Stand-ins. Each writes what it was asked into $work/calls.
cat > "$work/bin/dpkg-query" <<'STUB'
#!/usr/bin/env bash
# dpkg-query -W -f='${Status}' PACKAGE: installed when named in $STUB_INSTALLED.
package=${!#}
echo "dpkg-query $package" >> "$STUB_DIR/calls"
if [ "${STUB_INSTALLED:-}" = all ] || [[ " ${STUB_INSTALLED:-} " == *" $package "* ]]; then
  printf 'install ok installed'
  exit 0
fi
echo "dpkg-query: no packages found matching $package" >&2
exit 1
STUB
cat > "$work/bin/apt-get" <<'STUB'
#!/usr/bin/env bash
# Records its arguments and what the start policy said while it ran.
echo "apt-get $*" >> "$STUB_DIR/calls"
if [ -e "$ZEL_SETUP_POLICY" ]; then
  echo "policy during apt-get: $(tail -n 1 "$ZEL_SETUP_POLICY")" >> "$STUB_DIR/calls"
else
  echo "policy during apt-get: none" >> "$STUB_DIR/calls"
fi
[ "$1" = install ] && exit "${STUB_INSTALL_STATUS:-0}"
exit 0
STUB
cat > "$work/bin/id" <<'STUB'
#!/usr/bin/env bash
[ "$1" = -u ] && { echo "${STUB_UID:-0}"; exit 0; }
exec /usr/bin/id "$@"
STUB
cat > "$work/bin/hostname" <<'STUB'
#!/usr/bin/env bash
echo "${STUB_HOSTNAME:-mailhost}"
STUB
chmod 755 "$work/bin/"*

# Runs the set-up in a fresh case folder; sets $status, $out and $calls.
run_setup() {
  rm -f "$work/calls"
  touch "$work/calls"
  out=$(env PATH="$work/bin:$PATH" STUB_DIR="$work" \
          ZEL_SETUP_POLICY="$work/policy-rc.d" ZEL_SETUP_HOSTS="$work/hosts" \
          "$@" "$script" 2>&1)
  status=$?
  calls=$(cat "$work/calls")
}

fresh_hosts() { printf '127.0.0.1 localhost\n' > "$work/hosts"; }

# 1. A fresh image: packages missing, a policy that was there before.
fresh_hosts
printf '#!/bin/sh\n# the image'"'"'s own\nexit 101\n' > "$work/policy-rc.d"
before=$(cat "$work/policy-rc.d")
run_setup
[ "$status" -eq 0 ] || fail "install with an existing policy: exit status $status, output: $out"
grep -q '^apt-get update' <<<"$calls" || fail "install with an existing policy: apt-get update not run"
grep -q '^apt-get install -y -qq --no-install-recommends build-essential .*sendmail-bin sendmail-cf m4' <<<"$calls" ||
  fail "install with an existing policy: apt-get install did not get the missing packages: $calls"
# The mail stack's packages: Dovecot with IMAP, LMTP and its SQLite driver,
# libsodium for the password hashes, and python3 for the end-to-end suite.
for package in dovecot-core dovecot-imapd dovecot-lmtpd dovecot-sqlite libsodium-dev python3; do
  grep -q "^apt-get install .* $package\( \|\$\)" <<<"$calls" ||
    fail "install with an existing policy: apt-get install did not get $package: $calls"
done
[ -e "$work/policy-rc.d" ] || fail "install with an existing policy: the policy was removed"
[ "$(cat "$work/policy-rc.d")" = "$before" ] || fail "install with an existing policy: the policy was changed"

# 2. No policy before: one that refuses starts is there while apt-get runs,
# and gone afterwards.
fresh_hosts
rm -f "$work/policy-rc.d"
run_setup
[ "$status" -eq 0 ] || fail "install without a policy: exit status $status, output: $out"
grep -q '^policy during apt-get: exit 101$' <<<"$calls" ||
  fail "install without a policy: no refusing policy while apt-get ran: $calls"
[ ! -e "$work/policy-rc.d" ] || fail "install without a policy: the added policy was left behind"

# 3. apt-get fails: the script fails with its status, the added policy goes.
fresh_hosts
rm -f "$work/policy-rc.d"
run_setup env STUB_INSTALL_STATUS=100
[ "$status" -eq 100 ] || fail "failing install: exit status $status instead of 100"
grep -q 'installing the packages failed (status 100)' <<<"$out" || fail "failing install: no message: $out"
[ ! -e "$work/policy-rc.d" ] || fail "failing install: the added policy was left behind"

# 4. Everything installed: nothing to install, success.
fresh_hosts
run_setup env STUB_INSTALLED=all
[ "$status" -eq 0 ] || fail "all installed: exit status $status, output: $out"
grep -q '^apt-get' <<<"$calls" && fail "all installed: apt-get was run: $calls"

# 5. Not root and packages missing: told, not installed, exit 1.
fresh_hosts
run_setup env STUB_UID=1000
[ "$status" -eq 1 ] || fail "not root: exit status $status instead of 1"
grep -q 'missing Debian packages: build-essential' <<<"$out" || fail "not root: missing packages not named: $out"
grep -q 'run this script as root (or with sudo)' <<<"$out" || fail "not root: no hint: $out"
grep -q '^apt-get' <<<"$calls" && fail "not root: apt-get was run"
[ "$(cat "$work/hosts")" = "127.0.0.1 localhost" ] || fail "not root: the hosts file was changed"

# 6. The host name gets a qualified alias once.
fresh_hosts
run_setup env STUB_INSTALLED=all STUB_HOSTNAME=mailhost
grep -qx '127.0.1.1 mailhost.localdomain mailhost' "$work/hosts" || fail "no qualified alias added: $(cat "$work/hosts")"
run_setup env STUB_INSTALLED=all STUB_HOSTNAME=mailhost
[ "$(grep -c mailhost "$work/hosts")" -eq 1 ] || fail "the alias was added twice: $(cat "$work/hosts")"
printf '127.0.0.1 localhost\n192.0.2.7 mailhost.example.net mailhost\n' > "$work/hosts"
run_setup env STUB_INSTALLED=all STUB_HOSTNAME=mailhost
[ "$(grep -c mailhost "$work/hosts")" -eq 1 ] || fail "a qualified name already there got a second: $(cat "$work/hosts")"

if [ "$failures" -gt 0 ]; then
  echo "$failures set-up case(s) failed" >&2
  exit 1
fi
echo "set-up script: all cases passed"
