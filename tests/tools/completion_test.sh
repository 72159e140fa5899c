#!/usr/bin/env bash
# The companion tools' bash completion under Debian's bash-completion: what
# a Tab offers after each command line of the table.  $1 is the build
# directory (the tools are found there, as the completion asks their --help
# for options), $2 the completion script.  Exit 77 (skipped) without
# bash-completion.
set -uo pipefail
framework=/usr/share/bash-completion/bash_completion
[[ -r $framework ]] || { echo "bash-completion not installed (tools/install-deps.sh installs it)"; exit 77; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
mkdir "$tmp/dir"
touch "$tmp/file"

# words of the command line (the last is being completed) | offers, sorted
cases=(
  "zrstat --prom|--prometheus --prometheus-textfile"
  "zrstat --prometheus-textfile $tmp/|$tmp/dir"
  "zrtrace --format a|alibaba arc ascii"
  "zrtrace --event |C D Q"
  "zrtrace --size-unit s|sectors"
  "zrcurve -i $tmp/|$tmp/dir"
  "zrcurve --svg $tmp/f|$tmp/file"
  "zrcurve --sizes |"
)
# Every long option of each tool's --help is offered after "--".
for tool in zrtrace zrstat zrcurve; do
  cases+=("$tool --|$("$1/$tool" --help | grep -oE '^ +(-[a-zA-Z], )?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u | tr '\n' ' ')")
done

PATH="$1:$PATH" bash --norc --noprofile -c '
  source "$0" && source "$1" || exit 1
  shift 2
  failed=0
  for c in "$@"; do
    read -r -a COMP_WORDS <<<"${c%%|*}"
    [[ ${c%%|*} == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE="${c%%|*}" COMP_POINT=${#COMP_LINE} COMPREPLY=()
    _zriostat_tool "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    got=$(printf "%s\n" "${COMPREPLY[@]}" | grep . | sort -u | tr "\n" " ")
    want=$(tr " " "\n" <<<"${c#*|}" | grep . | sort -u | tr "\n" " ")
    [[ $got == "$want" ]] || { echo "${c%%|*}<Tab>: offers \"$got\", not \"$want\""; failed=1; }
  done
  exit $failed' "$framework" "$2" "${cases[@]}"
