#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Generates a section-1 manual page from its markdown source in man/.
#
#   gen-man1.sh PANDOC SOURCE OUTPUT VERSION
set -eu
name=$(basename "$2" .1.md)
mkdir -p "$(dirname "$3")"
"$1" -s -f markdown-smart -t man --shift-heading-level-by=-1 \
  -M "title=$name" -M section=1 -M "header=libvelmar_sastox" \
  -M "footer=libvelmar_sastox $4" -o "$3" "$2"
