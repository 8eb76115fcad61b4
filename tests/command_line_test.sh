#!/usr/bin/env bash
# The command lines' edges that the unit tests do not reach: both tools print
# the project's version, and privinspect's bash completion offers exactly the
# subcommands, options and record types that privinspect --help lists.
#
#   command_line_test.sh PRIVINSPECT PRIVBUILD COMPLETION-FILE VERSION
set -uo pipefail
inspect=$1 build=$2 completion=$3 version=$4
failed=0
check() {  # WHAT EXPECTED GOT
  if [[ $2 != "$3" ]]; then
    printf 'FAIL: %s\n--- expected\n%s\n--- got\n%s\n' "$1" "$2" "$3" >&2
    failed=1
  fi
}

check "privinspect --version" "privinspect $version" "$("$inspect" --version)"
check "privbuild --version" "privbuild $version" "$("$build" --version)"

# shellcheck source=/dev/null
source "$completion"
complete_line() {  # WORD...: the completions of the last word, sorted
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  _privinspect 2>/dev/null
  [[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\n' "${COMPREPLY[@]}" | sort
}
long_options() {  # the long options of a --help text on standard input
  grep -oE '^ +(-[a-zA-Z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u
}

help=$("$inspect" --help)
subcommands=$(sed -n '/^Subcommands:/,$p' <<<"$help" | grep -oE '^  [a-z]+' | tr -d ' ')
check "privinspect <TAB>" "$({ echo "$subcommands"; long_options <<<"$help"; } | sort)" \
  "$(complete_line privinspect "")"
check "privinspect --sector-size <TAB>" $'4096\n512' \
  "$(complete_line privinspect --sector-size "")"
check "privinspect --header <TAB>" $'alternate\nauto\nprimary' \
  "$(complete_line privinspect --header "")"

for sub in $subcommands; do
  check "privinspect --sector-size 4096 $sub IMAGE -<TAB>" \
    "$({ "$inspect" "$sub" --help | long_options; echo --sector-size; echo --header; echo --region; echo --offset; } | sort)" \
    "$(complete_line privinspect --sector-size 4096 "$sub" disk.img -)"
done

types=$("$inspect" records --help | sed -n 's/.*(repeatable): \(.*\), or a number.*/\1/p')
check "privinspect records IMAGE --type <TAB>" "$(tr -d ' ' <<<"$types" | tr ',' '\n' | sort)" \
  "$(complete_line privinspect records disk.img --type "")"

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
touch "$dir/disk01.img"
check "privinspect headers IMAGE<TAB>" "$dir/disk01.img" \
  "$(complete_line privinspect headers "$dir/disk")"

exit "$failed"
