#!/bin/bash
# The table of WARN and ERROR lines in the documents is complete, and its words are those of the log.
# Usage: log_lines_test.bash DOCUMENT SOURCE_DIRECTORY
set -euo pipefail

document=$1
sources=$2
statement='CORVEL_LOG_(WARN|ERROR)\([[:space:]]*"([^"\\]|\\.)*"'
# NUL as line end makes a statement that is broken after its parenthesis one match.
logged=$(grep --recursive --include='*.cpp' --no-filename --only-matching --null-data \
  --extended-regexp "$statement" "$sources" |
  tr '\n\0' ' \n' | sed --regexp-extended 's/CORVEL_LOG_([A-Z]+)\(\s*"(.*)"/\1 \2/' | sort --unique)
# shellcheck disable=SC2016  # the backquotes are those of the document
listed=$(sed --quiet --regexp-extended 's/^\| (WARN|ERROR) \| `([^`]*)` \|.*/\1 \2/p' "$document" |
  sort)

if [[ $(wc -l <<< "$logged") -lt 30 ]]; then
  echo "FAILED: found only these log statements in the sources:"
  echo "$logged"
  exit 1
fi
if ! diff <(echo "$logged") <(echo "$listed"); then
  echo "FAILED: the log statements (<) differ from the table of $document (>)"
  exit 1
fi
