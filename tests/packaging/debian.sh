#!/usr/bin/env bash
# Installs the Debian packages on this system with apt-get, runs the program, builds the example host
# agent against them, purges them, and checks that nothing is left. It changes the system, so it is a
# stage of .ci/run and not part of `make test`.
#
#     debian.sh FOLDER_WITH_PACKAGES
set -euo pipefail
packages=$(realpath "$1")
root=$(realpath "$(dirname "$0")/../..")
names=(vnagent libopenstacksm-dev)

fail() {
  echo "$*" >&2
  exit 1
}

as_root=()
[ "$(id -u)" = 0 ] || as_root=(sudo)
apt() { DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get -qq -o Dpkg::Use-Pty=0 "$@" >/dev/null; }

shopt -s nullglob
files=("$packages"/*.deb)
[ ${#files[@]} = 3 ] || fail "three packages expected in $packages, found: ${files[*]}"
for file in "${files[@]}"; do
  name=$(dpkg-deb --field "$file" Package)
  [[ " ${names[*]} " == *" $name "* ]] || names+=("$name")
  ! dpkg-query -W "$name" >/dev/null 2>&1 || fail "$name is installed already; purge it first"
done

echo "-- metadata"
for file in "${files[@]}"; do
  name=$(dpkg-deb --field "$file" Package)
  dpkg-deb --fsys-tarfile "$file" | tar --to-stdout -x "./usr/share/doc/$name/copyright" |
    grep -q '^License: Apache-2.0$' || fail "$name has no copyright file with the licence"
  [ "$name" = libopenstacksm-dev ] || dpkg-deb --field "$file" Depends | grep -q 'libstdc++6 (>=' ||
    fail "$name does not depend on the libraries that it needs"
done

echo "-- install"
apt update
before=$(mktemp)
listing() {
  find /etc /opt /usr /var -xdev \( -path /var/cache -o -path /var/lib/apt -o -path /var/log \) -prune \
    -o \( -iname '*openstacksm*' -o -name '*vnagent*' \) -print | sort
}
listing >"$before"
apt install --no-install-recommends "${files[@]}"
trap 'rm -f "$before"; apt purge "${names[@]}" || true' EXIT

echo "-- run"
vnagent --version
[ "$(command -v vnagent)" = /usr/bin/vnagent ] || fail "another vnagent comes first in PATH"
! readelf --dynamic /usr/bin/vnagent | grep RUNPATH || fail "the packaged program has a run path"
echo '{"region": {"RegionOne": {}}}' | vnagent run /dev/stdin --format json | grep -q RegionOne ||
  fail "vnagent does not run"
for file in share/man/man1/vnagent.1.gz share/bash-completion/completions/vnagent \
  share/zsh/vendor-completions/_vnagent share/fish/vendor_completions.d/vnagent.fish; do
  # Small systems are configured without manuals.
  [ -f "/usr/$file" ] || { [[ $file == *man1* ]] && grep -qr 'path-exclude.*man' /etc/dpkg; } ||
    fail "/usr/$file is not there"
done

echo "-- service"
unit=/usr/lib/systemd/system/vnagent.service
systemd-analyze security --offline=true --threshold=20 "$unit" >/dev/null ||
  fail "the service's exposure is more than 2.0: $(systemd-analyze security --offline=true "$unit" |
    tail -1)"
[ "$(getent passwd vnagent | cut -d: -f6)" = /var/lib/vnagent ] || fail "there is no user vnagent"
# As the unit starts it, but by hand: systemd does not run in containers.
"${as_root[@]}" install -d -o vnagent -g vnagent -m 755 /run/vnagent
"${as_root[@]}" install -d -o vnagent -g vnagent -m 700 /var/lib/vnagent
"${as_root[@]}" setpriv --reuid vnagent --regid vnagent --init-groups \
  vnagent serve --state-dir /var/lib/vnagent &
service=$!
ready=$("${as_root[@]}" python3 - /run/vnagent/vnagent.sock <<'PYTHON'
import socket, sys, time
reply, end = b"", time.monotonic() + 60
while not reply.startswith(b"HTTP/1.1 200 ") and time.monotonic() < end:
    try:
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(sys.argv[1])
            connection.sendall(b"GET /readyz HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n")
            reply = connection.recv(65536)
    except OSError:
        time.sleep(0.05)
print(reply.split(b"\r\n")[0].decode())
PYTHON
)
[ "$ready" = "HTTP/1.1 200 OK" ] || fail "the service is not ready: $ready"
# setpriv becomes the agent, and sudo passes signals on.
"${as_root[@]}" kill "$service"
wait "$service" || fail "the service ends with $?"
"${as_root[@]}" test -f /var/lib/vnagent/journal.db || fail "the service keeps no state"

echo "-- pages"
pages=/usr/share/doc/libopenstacksm-dev
if [ -d "$pages" ]; then
  diff -r "$root/examples/embed" "$pages/examples/embed" || fail "the packaged example is another"
  cmp "$root/docs/embedding.md" "$pages/embedding.md"
else
  # Small systems are configured without documentation.
  grep -qr 'path-exclude.*doc' /etc/dpkg || fail "$pages is not there"
fi

echo "-- embed"
scratch=$(mktemp -d)
"$root/tests/packaging/embed.sh" "$root" /usr "/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
  "$scratch" c++
rm -rf "$scratch"

echo "-- purge"
trap 'rm -f "$before"' EXIT
apt purge "${names[@]}"
for name in "${names[@]}"; do
  ! dpkg-query -W "$name" >/dev/null 2>&1 || fail "$name is known still after its purge"
done
left=$(listing | diff "$before" - || true)
[ -z "$left" ] || fail "left behind: $left"
! ldconfig -p | grep -i openstacksm || fail "the linker's cache names the library still"
echo "nothing is left"
