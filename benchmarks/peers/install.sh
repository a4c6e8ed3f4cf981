# shellcheck shell=bash disable=SC2154
# Gets what ./bench --peers compares with. Sourced by it; needs scripts/common.sh.

# Puts the libraries of node into a folder. Why one cannot be had stands in NAME.reason there.
install_node_peers() {
  local folder=$1 peer
  command -v node >/dev/null || want_packages nodejs
  command -v npm >/dev/null || want_packages npm
  for peer in pg postgres better-sqlite3; do
    say "installing: $peer, from npm"
    (cd "$folder" && npm install --no-audit --no-fund --loglevel=error "$peer") \
      </dev/null >"$folder/$peer.log" 2>&1 && continue
    { grep -m 1 -E 'npm (error|ERR!)|not found' "$folder/$peer.log" || echo "npm could not install it"; } \
      >"$folder/$peer.reason"
  done
}

# Prints the program of Python that has psycopg2; python3 where none has it.
python_with_psycopg2() {
  local python
  want_packages python3 python3-psycopg2
  while read -r python; do
    if "$python" -c 'import sqlite3, psycopg2' 2>/dev/null; then
      printf '%s\n' "$python"
      return
    fi
  done < <(type -ap python3)
  printf 'python3\n'
}
