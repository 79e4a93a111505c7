#!/usr/bin/env bash
# Runs the sendspin-js client against our server on loopback. Needs node and a
# folder where "npm install @sendspin/sendspin-js@3.2.1 ws" was run, named by
# VELLATONE_SENDSPIN_JS_DIR; without them the check is skipped (exit 77).
#   check.sh <vellatone-sendspin-load binary>
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
modules="${VELLATONE_SENDSPIN_JS_DIR:-}"
if [ -z "$modules" ] || [ ! -d "$modules/node_modules/@sendspin/sendspin-js" ] || ! command -v node >/dev/null; then
    echo "sendspin-js not installed; skipped"
    exit 77
fi
out="$(mktemp)"
"$1" --serve 10 >"$out" &
server=$!
trap 'kill $server 2>/dev/null || true; rm -f "$out"' EXIT
for _ in $(seq 50); do grep -q port "$out" && break; sleep 0.1; done
port="$(awk '/port/ {print $2}' "$out")"
cp "$here/listen.mjs" "$here/resolve_extensionless.mjs" "$modules/"
cd "$modules"
node --no-warnings --loader ./resolve_extensionless.mjs listen.mjs "$port" 4 2>/dev/null | grep '^sendspin-js:'
