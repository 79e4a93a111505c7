#!/usr/bin/env bash
# Runs the sendspin-js client (pinned in package.json beside this script)
# against our server on loopback. Installs it from the npm registry on first
# use; VELLATONE_SENDSPIN_JS_DIR may name another folder where it is installed.
# Without node or npm the check is skipped (exit 77), except under CI.
#   check.sh <vellatone-sendspin-load binary>
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
modules="${VELLATONE_SENDSPIN_JS_DIR:-$here}"
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    echo "sendspin-js check: node or npm is not installed"
    [ -n "${CI:-}" ] && exit 1
    exit 77
fi
if [ ! -d "$modules/node_modules/@sendspin/sendspin-js" ]; then
    (cd "$modules" && npm ci --no-audit --no-fund >/dev/null)
fi
out="$(mktemp)"
"$1" --serve 10 >"$out" &
server=$!
trap 'kill $server 2>/dev/null || true; rm -f "$out"' EXIT
for _ in $(seq 50); do grep -q port "$out" && break; sleep 0.1; done
port="$(awk '/port/ {print $2}' "$out")"
[ "$modules" = "$here" ] || cp "$here/listen.mjs" "$here/resolve_extensionless.mjs" "$modules/"
cd "$modules"
node --no-warnings --loader ./resolve_extensionless.mjs listen.mjs "$port" 4 2>/dev/null | grep '^sendspin-js:'
