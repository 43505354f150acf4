#!/usr/bin/env bash
# Fetches the fleet page's MQTT client (the version in fleet/vendor/README) from the npm
# registry, checks its sha256 against the README and puts it and its licence into
# fleet/vendor/. Needs npm; nothing else is fetched.
set -euo pipefail
cd "$(dirname "$0")/.."

readme=fleet/vendor/README
version=$(awk '$1 == "version" { print $2 }' "$readme")
want=$(awk '$1 == "sha256" { print $2 }' "$readme")
if [ -z "$version" ] || [ -z "$want" ]; then
  echo "update-fleet-mqtt: no version or sha256 in $readme" >&2
  exit 1
fi
command -v npm >/dev/null || { echo "update-fleet-mqtt: npm is missing (apt-get install npm)" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$work" && npm pack --silent "mqtt@$version" >/dev/null)
tar -xzf "$work/mqtt-$version.tgz" -C "$work" package/dist/mqtt.min.js package/LICENSE.md
got=$(sha256sum "$work/package/dist/mqtt.min.js" | cut -d' ' -f1)
if [ "$got" != "$want" ]; then
  echo "update-fleet-mqtt: mqtt $version's dist/mqtt.min.js has sha256 $got, $readme says $want" >&2
  exit 1
fi
cp "$work/package/dist/mqtt.min.js" "$work/package/LICENSE.md" fleet/vendor/
echo "update-fleet-mqtt: fleet/vendor/mqtt.min.js is mqtt $version ($got)"
