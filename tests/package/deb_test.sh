#!/usr/bin/env bash
# The Debian package as a new user gets it: built from a Release tree with
# cpack, unpacked into a scratch root, its dependencies checked against the
# libraries the programs link, and the unpacked mirel-mcp started.
# usage: deb_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "deb_test: $*" >&2; exit 1; }

cpack --config "$build/CPackConfig.cmake" -G DEB -B "$scratch/package" >"$scratch/cpack.log" 2>&1 ||
  { cat "$scratch/cpack.log" >&2; fail "cpack failed"; }
debs=("$scratch"/package/mirel_*.deb)
[[ -f ${debs[0]} ]] || fail "no mirel_*.deb was made"
deb=${debs[0]}
root="$scratch/root"
dpkg-deb -x "$deb" "$root"

for file in usr/bin/mirel-mcp usr/bin/mirel usr/share/man/man1/mirel.1 usr/share/man/man1/mirel-mcp.1 \
  usr/share/bash-completion/completions/mirel usr/share/zsh/site-functions/_mirel \
  usr/lib/systemd/user/mirel-watch.service; do
  [[ -f "$root/$file" ]] || fail "the package lacks /$file"
done
unit="$root/usr/lib/systemd/user/mirel-watch.service"
grep -qx 'ExecStart=/usr/bin/mirel watch' "$unit" || fail "the unit does not run /usr/bin/mirel watch"
grep -qx 'Restart=on-failure' "$unit" || fail "the unit does not restart on failure"

# Every library a program names must come from a package the .deb depends on.
depends=" $(dpkg-deb -f "$deb" Depends | sed 's/([^)]*)//g; s/[,|]/ /g') "
for program in "$root"/usr/bin/*; do
  needed=$(readelf -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  for soname in $needed; do
    path=$(ldd "$program" | awk -v name="$soname" '$1 == name { print $3 }')
    [[ -n $path ]] || fail "$soname, needed by $(basename "$program"), is not found"
    owner=$(dpkg -S "$path" 2>/dev/null || dpkg -S "$(readlink -f "$path")" 2>/dev/null || true)
    owner=${owner%%:*}
    [[ -n $owner ]] || fail "no Debian package holds $path"
    [[ $depends == *" $owner "* ]] || fail "$(basename "$program") needs $soname from $owner, which Depends lacks:$depends"
  done
done

# The unpacked server answers an initialize on a library of its own.
reply=$(printf '%s\n' '{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"deb_test","version":"1"}}}' |
  MIREL_HOME="$scratch/library" "$root/usr/bin/mirel-mcp" 2>"$scratch/mcp.err") ||
  { cat "$scratch/mcp.err" >&2; fail "the unpacked mirel-mcp failed"; }
[[ $reply == *'"protocolVersion":"2025-06-18"'* && $reply == *'"id":1'* ]] || fail "unexpected reply: $reply"

# The unpacked mirel points agents at the mirel-mcp beside it.
config=$(HOME="$scratch" "$root/usr/bin/mirel" mcp-config --client cursor 2>/dev/null)
[[ $config == *"\"command\": \"$root/usr/bin/mirel-mcp\""* ]] || fail "mcp-config does not name the unpacked mirel-mcp: $config"
echo "deb_test: $(basename "$deb") unpacked and started"
