#!/usr/bin/env bash
# Puts the TypeScript compiler that checks the type files into a folder, where it is not there yet:
#
#   scripts/install_typescript.sh FOLDER
#
# This version is the last one that writes ECMAScript 3 without complaint. Ends with 1 and a word to
# standard error where there is no npm, or where npm cannot reach its registry.
set -euo pipefail
version=4.9.5
folder=$1
compiler="$folder/node_modules/typescript/bin/tsc"

missing() {
  printf '%s\n' "$*" >&2
  exit 1
}

command -v node >/dev/null || missing "node is not installed"
installed=$(node -p 'require(process.argv[1]).version' \
  "$(realpath -m "$folder")/node_modules/typescript/package.json" 2>/dev/null) || installed=
[ "$installed" = "$version" ] && [ -f "$compiler" ] && exit 0

command -v npm >/dev/null || missing "npm is not installed"
mkdir -p "$folder"
# No script of a package is run, and nothing is written beside the package itself.
npm install --prefix "$folder" --no-save --no-package-lock --ignore-scripts --no-audit --no-fund \
  --fetch-retries=1 --fetch-timeout=30000 --silent "typescript@$version" \
  </dev/null >/dev/null 2>&1 || missing "npm could not install typescript $version"
