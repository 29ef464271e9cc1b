#!/bin/sh
# Writes the tolven-diag(1) man page from the README's section "The command-line tool", so that
# the two cannot drift apart. Handles the Markdown that section uses: "###" headings, paragraphs,
# code blocks, two-column tables, "- " lists and `code`.
#   readme-to-man.sh README.md > tools/tolven-diag/tolven-diag.1
#   readme-to-man.sh --check README.md tools/tolven-diag/tolven-diag.1   (exit 1 when they differ)
set -eu

if [ "${1:-}" = "--check" ]; then
    [ $# -eq 3 ] || { echo "usage: $0 --check README MAN_PAGE" >&2; exit 2; }
    if ! "$0" "$2" | diff -u "$3" - >&2; then
        echo "$3 is out of date; regenerate it: $0 $2 > $3" >&2
        exit 1
    fi
    exit 0
fi
[ $# -eq 1 ] || { echo "usage: $0 README" >&2; exit 2; }

awk '
function escape(s) {
    gsub(/\\/, "\\e", s)
    gsub(/-/, "\\-", s)
    if (s ~ /^[.'\'']/) s = "\\&" s
    return s
}
function inline(s,    out, i, j) {
    s = escape(s)
    out = ""
    while ((i = index(s, "`")) > 0) {
        j = index(substr(s, i + 1), "`")
        if (j == 0) break
        out = out substr(s, 1, i - 1) "\\fB" substr(s, i + 1, j - 1) "\\fR"
        s = substr(s, i + j + 1)
    }
    return out s
}
function cell(s) {
    sub(/^ +/, "", s)
    sub(/ +$/, "", s)
    return inline(s)
}
/^## The command-line tool/ { inside = 1; next }
inside && /^## / { exit }
!inside { next }
code {
    if ($0 ~ /^```/) { print ".fi"; print ".RE"; code = 0; para = 1; next }
    print escape($0)
    next
}
/^```/ { print ".PP"; print ".RS 4"; print ".nf"; code = 1; fresh = 0; next }
/^### / { print ".SH " substr($0, 5); para = 0; table = 0; fresh = 1; next }
/^$/ { para = !fresh; table = 0; next }
/^\|/ {
    if (!table) { table = 1; header = 1; next }
    if (header) { header = 0; next }
    line = $0
    sub(/^\| */, "", line)
    sub(/ *\|$/, "", line)
    n = index(line, " | ")
    print ".TP"
    print cell(substr(line, 1, n - 1))
    print cell(substr(line, n + 3))
    para = 0
    fresh = 0
    next
}
/^- / { print ".IP \\(bu 2"; print inline(substr($0, 3)); para = 0; fresh = 0; next }
{
    if (para) print ".PP"
    para = 0
    fresh = 0
    line = $0
    sub(/^ +/, "", line)
    print inline(line)
}
BEGIN {
    print ".\\\" Generated from README.md by tools/tolven-diag/readme-to-man.sh; do not edit."
    print ".TH TOLVEN\\-DIAG 1 \"\" \"libtolven_diag\" \"User Commands\""
}
' "$1"
