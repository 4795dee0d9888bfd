#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Generates the section-3 manual pages from docs/reference.md, so that the reference has
# one source. Every "<!-- man3: PAGE "description" -->" marker in the reference starts a
# page that runs to the next marker; each exported name in the page's "###" headings (and
# its "extern" declarations) gets a page of its own name that sources the header's page,
# so that `man 3 dm_send_req` works.
#
#   gen-man3.sh PANDOC REFERENCE OUTDIR VERSION
set -eu
pandoc=$1
reference=$2
outdir=$3
version=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$outdir/man3"

# Split the reference into one markdown file per page; list the names per page.
awk -v work="$work" '
  /^<!-- man3: / {
    page = $3
    desc = $0
    sub(/^<!-- man3: [^ ]+ "/, "", desc)
    sub(/" -->$/, "", desc)
    print page "\t" desc > (work "/pages.tsv")
    next
  }
  page == "" { next }
  { print > (work "/" page ".md") }
  /^### / {
    line = $0
    while (match(line, /`[A-Za-z_][A-Za-z0-9_]*`/)) {
      print substr(line, RSTART + 1, RLENGTH - 2) "\t" page > (work "/names.tsv")
      line = substr(line, RSTART + RLENGTH)
    }
  }
  /^extern / {
    name = $NF
    sub(/\[.*$/, "", name); sub(/;$/, "", name); sub(/^\*/, "", name)
    print name "\t" page > (work "/names.tsv")
  }
' "$reference"

see_also=$(cut -f1 "$work/pages.tsv" | sed 's/.*/**&**(3)/' | paste -sd, - | sed 's/,/, /g')

while IFS="$(printf '\t')" read -r page desc; do
  {
    printf '## NAME\n\n%s - %s\n\n' "$page" "$desc"
    printf '## SYNOPSIS\n\n`#include "velmar_sastox.h"`\n\n'
    printf 'Link with `-lvelmar_sastox -lvelmar_hostplat` (`pkg-config --libs velmar_sastox`).\n\n'
    cat "$work/$page.md"
    printf '\n## SEE ALSO\n\n%s, **dmctl**(1).\n\n' "$see_also"
    printf 'The guides installed with the library, in share/doc/velmar_sastox: guide.md,\n'
    printf 'daemon.md, reference.md (the source of these pages), udp.md, host-platform.md.\n'
  } > "$work/$page.page.md"
  "$pandoc" -s -f markdown-smart -t man --shift-heading-level-by=-1 \
    -M "title=$page" -M section=3 -M "header=libvelmar_sastox" \
    -M "footer=libvelmar_sastox $version" \
    -o "$outdir/man3/$page.3" "$work/$page.page.md"
done < "$work/pages.tsv"

while IFS="$(printf '\t')" read -r name page; do
  [ "$name" = "$page" ] && continue
  printf '.so man3/%s.3\n' "$page" > "$outdir/man3/$name.3"
done < "$work/names.tsv"
