#!/usr/bin/env bash
# Holds an installed tree to what it should be: the program finds the library when the tree has been
# moved, the man page is well formed, the completions parse, the links of the pages lead somewhere, and
# no path of the build is in it.
#
#     installed.sh PREFIX SOURCE_ROOT BUILD_TYPE
set -euo pipefail
prefix=$1 root=$2 build_type=$3

fail() {
  echo "$*" >&2
  exit 1
}

moved=$prefix-moved
rm -rf "$moved"
cp -R "$prefix" "$moved"
trap 'rm -rf "$moved"' EXIT
mv "$prefix" "$prefix-away"
"$moved/bin/vnagent" --version || { mv "$prefix-away" "$prefix" && fail "vnagent does not start"; }
mv "$prefix-away" "$prefix"

manual=$prefix/share/man/man1/vnagent.1
if command -v mandoc >/dev/null; then
  mandoc -T lint -W warning "$manual" || fail "the man page has faults"
fi
grep -q "^.Os \"OpenStackSm $("$prefix/bin/vnagent" --version | cut -d' ' -f2)\"$" "$manual" ||
  fail "the man page is of another version than the program"
page=$(grep -o 'share/doc/[^ ]*\.md' "$manual")
[ -f "$prefix/$page" ] || fail "the man page points to $page, which is not installed"

# shellcheck disable=SC2043
for check in "bash share/bash-completion/completions/vnagent" \
  "zsh share/zsh/site-functions/_vnagent" \
  "fish share/fish/vendor_completions.d/vnagent.fish"; do
  read -r shell file <<<"$check"
  [ -f "$prefix/$file" ] || fail "$file is not installed"
  if command -v "$shell" >/dev/null; then
    "$shell" -n "$prefix/$file" || fail "$file is no $shell"
  fi
done

# Bash's completion is plain enough to be run.
complete() {
  bash -c 'source "$1"; COMP_WORDS=(vnagent "${@:2}"); COMP_CWORD=$(($# - 1))
    _vnagent vnagent "${@: -1}" "${COMP_WORDS[COMP_CWORD - 1]}" 2>/dev/null; echo "${COMPREPLY[*]}"' \
    bash "$prefix/share/bash-completion/completions/vnagent" "$@"
}
[ "$(complete i)" = import-neutron ] || fail "bash does not complete commands"
[ "$(complete run --trace-f)" = --trace-file ] || fail "bash does not complete options"
[ "$(complete run --toggle o)" = "on off" ] || fail "bash does not complete values"

pages=$prefix/share/doc/OpenStackSm
[ -f "$pages/embedding.md" ] && [ -f "$pages/examples/embed/main.cpp" ] ||
  fail "the pages for embedders are not installed"
while IFS=: read -r page link; do
  [ -e "$(dirname "$page")/$link" ] || fail "$page: nothing is installed under the link $link"
done < <(grep -roP --include='*.md' '\]\(\K[\w./-]+(?=[)#])' "$pages")

[ "$build_type" = Debug ] || ! grep -rlF "$root" "$prefix" ||
  fail "these files hold the path of the source tree; packaging/reproducible.cmake should keep it out"
