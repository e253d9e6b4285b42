#!/usr/bin/env bash
# The man page (roff) of one of our tools, from its --help and that of every
# command and sub-command: NAME, SYNOPSIS, DESCRIPTION, OPTIONS (every option
# group), one subsection per command with its options, NOTES, and EXAMPLES
# one a line. Usage: man-page.sh TOOL_PATH VERSION SUMMARY > tool.1
set -euo pipefail
tool_path=$1 version=$2 summary=$3
tool=$(basename "$tool_path")

# roff-safe text: backslashes, hyphens, and a leading dot or quote.
roff() { sed -e 's/\\/\\e/g' -e 's/-/\\-/g' -e 's/^[.'"'"']/\\\&&/'; }
verbatim() { printf '.nf\n'; roff; printf '.fi\n'; }
# The help of "tool ARGS...", its Usage line naming the tool, not the path.
help_of() { "$tool_path" "$@" --help | sed "s|^Usage: [^ ]*|Usage: $tool|"; }
# The blocks of a help (separated by blank lines) of one kind: description
# (before Usage), options (a "Something:" header over indented lines, but not
# Subcommands), commands, examples, notes (any other).
blocks() {
  awk -v want="$1" '
    function kind(b) {
      if (b ~ /^Usage:/) return "usage"
      if (!seen_usage) return "description"
      if (b ~ /^Subcommands:/) return "commands"
      if (b ~ /^Examples?:/) return "examples"
      if (b ~ /^[^ \n][^\n]*:\n  /) return "options"
      return "notes"
    }
    function flush() {
      if (block == "") return
      k = kind(block)
      if (k == "usage") seen_usage = 1
      if (k == want) printf "%s%s\n", (printed++ ? "\n" : ""), block
      block = ""
    }
    /^Usage:/ { flush(); block = $0; flush(); next }
    /^$/ { flush(); next }
    { block = block == "" ? $0 : block "\n" $0 }
    END { flush() }'
}
commands_of() { blocks commands | awk 'NR > 1 && /^  [a-z]/ {print $1}'; }

top=$(help_of)
printf '.TH %s 1 "" "%s %s" "User Commands"\n' "$(echo "$tool" | tr a-z A-Z)" "$tool" "$version"
printf '.SH NAME\n%s \\- %s\n' "$tool" "$(echo "$summary" | roff)"
printf '.SH SYNOPSIS\n'; printf '%s\n' "$top" | grep '^Usage:' | sed 's/^Usage: //' | verbatim
printf '.SH DESCRIPTION\n'; printf '%s\n' "$top" | blocks description | verbatim
printf '.SH OPTIONS\n'; printf '%s\n' "$top" | blocks options | verbatim

commands=$(printf '%s\n' "$top" | commands_of)
if [ -n "$commands" ]; then
  printf '.SH COMMANDS\n'
  for command in $commands; do
    subs=$(help_of "$command" | commands_of)
    for words in "$command" $(for sub in $subs; do echo "$command/$sub"; done); do
      [ -n "$subs" ] && [ "$words" = "$command" ] && continue  # its commands have the options
      words=${words//\// }
      # shellcheck disable=SC2086
      page=$(help_of $words)
      printf '.SS "%s %s"\n' "$tool" "$words"
      { printf '%s\n' "$page" | blocks description
        printf '%s\n' "$page" | grep '^Usage:'
        echo
        printf '%s\n' "$page" | blocks options; } | verbatim
    done
  done
fi
notes=$(printf '%s\n' "$top" | blocks notes)
[ -z "$notes" ] || { printf '.SH NOTES\n'; printf '%s\n' "$notes" | verbatim; }
examples=$(printf '%s\n' "$top" | blocks examples | sed -e 1d -e 's/^  //')
[ -z "$examples" ] || { printf '.SH EXAMPLES\n'; printf '%s\n' "$examples" | verbatim; }
