#!/usr/bin/env bash
# Builds the Debian package and checks it: its contents, the validators (desktop entry,
# AppStream, lintian), then installs it on this machine, lays out a station folder with
# quorvel-station-setup, runs the station there for 5 s and purges the package.
# Installing needs root (or sudo); a machine that already has quorvel installed is left
# alone after the validators.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default --target quorvel_installables
rm -f build/default/deb/*.deb
(cd build/default && cpack --config CPackConfig.cmake >/dev/null)
deb=$(ls build/default/deb/quorvel_*.deb)
echo "package: $deb ($(stat -c %s "$deb") bytes)"
dpkg-deb --field "$deb" Package Version Depends Recommends

sudo=""
work=$(mktemp -d)
installed=""
cleanup() {
    if [ -n "$installed" ]; then
        $sudo dpkg --purge quorvel >/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
fail() {
    echo "package-check: $*" >&2
    exit 1
}

echo "== contents"
dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sed 's|^\./|/|' | sort >"$work/contents"
sort >"$work/expected" <<'EOF'
/usr/bin/quorvel-bench
/usr/bin/quorvel-engine-check
/usr/bin/quorvel-history
/usr/bin/quorvel-pac
/usr/bin/quorvel-ports
/usr/bin/quorvel-sim-engine
/usr/bin/quorvel-sprd-flash
/usr/bin/quorvel-sprd-phone
/usr/bin/quorvel-station
/usr/bin/quorvel-station-setup
/usr/lib/modules-load.d/quorvel-station.conf
/usr/lib/quorvel/quorvel
/usr/lib/udev/rules.d/70-quorvel-station.rules
/usr/share/applications/io.quorvel.Station.desktop
/usr/share/doc/quorvel/changelog.gz
/usr/share/doc/quorvel/copyright
/usr/share/doc/quorvel/engine-protocol.md
/usr/share/doc/quorvel/examples/mosquitto-fleet.conf
/usr/share/icons/hicolor/scalable/apps/io.quorvel.Station.svg
/usr/share/metainfo/io.quorvel.Station.metainfo.xml
/usr/share/quorvel/fleet/fleet.css
/usr/share/quorvel/fleet/fleet.js
/usr/share/quorvel/fleet/index.html
/usr/share/quorvel/fleet/vendor/LICENSE.md
/usr/share/quorvel/fleet/vendor/README
/usr/share/quorvel/fleet/vendor/mqtt.min.js
/usr/share/quorvel/scenarios/mtk_batch.txt
/usr/share/quorvel/scenarios/sprd_native16.txt
/usr/share/quorvel/scenarios/sprd_pair.txt
/usr/share/quorvel/scenarios/sprd_swap.txt
/usr/share/quorvel/station-template/Config/CommonSetting.ini
/usr/share/quorvel/station-template/demo/MT6580_Android_scatter.txt
/usr/share/quorvel/station-template/res/BRINDLE.bmp
/usr/share/quorvel/station-template/res/BRINDLE_E.bmp
/usr/share/quorvel/station-template/res/BRINDLE_USERDATA.bmp
/usr/share/quorvel/station-template/res/BRINDLE_USERDATA_E.bmp
EOF
diff -u "$work/expected" "$work/contents" || fail "the package's files differ from the expected ones (above)"
cat "$work/contents"

echo "== validators"
dpkg-deb -x "$deb" "$work/root"
desktop-file-validate "$work/root/usr/share/applications/io.quorvel.Station.desktop"
echo "desktop-file-validate: passed"
grep -qx "http_dir /usr/share/quorvel/fleet" "$work/root/usr/share/doc/quorvel/examples/mosquitto-fleet.conf" ||
    fail "the sample broker configuration does not serve the installed fleet page"
appstreamcli validate --no-net "$work/root/usr/share/metainfo/io.quorvel.Station.metainfo.xml"
lrc=0
lintian --fail-on error "$deb" >"$work/lintian" 2>&1 || lrc=$?
grep -v 'running with root privileges' "$work/lintian" || true
[ "$lrc" -eq 0 ] || fail "lintian reports errors"
echo "lintian: no errors"

if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
        echo "package-check: not root and no sudo: installation not checked"
        exit 0
    fi
    sudo="sudo"
fi
if dpkg-query -W -f='${Status}' quorvel 2>/dev/null | grep -q "install ok installed"; then
    echo "package-check: quorvel is installed on this machine; installation not checked"
    exit 0
fi

echo "== install"
installed=yes
# Recommends (udev) left out: the package must install where there is no udev.
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "./$deb" 2>&1 |
    tr '\r' '\n' | { grep -v -e '^(Reading database' -e '^debconf: delaying' -e '^$' || true; }
getent group quorvel >/dev/null || fail "postinst did not create the group quorvel"
ports=$(quorvel-ports --check || true)
echo "$ports"
if grep -q -e "udev rule is not installed" -e "group quorvel does not exist" <<<"$ports"; then
    fail "quorvel-ports --check still misses the installed rule or group"
fi
quorvel-engine-check quorvel-sim-engine | tail -1

echo "== station folder"
station="$work/station"
quorvel-station-setup "$station"
[ -f "$station/quorvel" ] || fail "no station program in $station"
[ ! -L "$station/quorvel" ] || fail "the station program in $station is a link, not a copy"
[ -f "$station/Config/CommonSetting.ini" ] || fail "no configuration in $station"
[ -f "$station/demo/sprd_demo.pac" ] || fail "no SPRD demo package in $station"
echo "; operator's own" >>"$station/Config/CommonSetting.ini"
quorvel-station-setup "$station" >/dev/null
grep -q "operator's own" "$station/Config/CommonSetting.ini" || fail "setup overwrote the configuration"

echo "== station on the offscreen platform, simulated bench, 5 s"
rc=0
QT_QPA_PLATFORM=offscreen timeout 5 quorvel-station "$station" >"$work/station.log" 2>&1 || rc=$?
cat "$work/station.log"
[ "$rc" -eq 124 ] || fail "the station ended by itself within 5 s (exit $rc)"
# The folders appear only past the single-instance check, beside the program copy.
[ -d "$station/TestLog" ] || fail "the station did not start in $station (another station running?)"
[ ! -e /usr/lib/quorvel/Config ] || fail "the station made its folders in /usr/lib/quorvel"
grep -q '^Simulated=1' "$station/Config/CommonSetting.ini" || fail "the station folder is not on the simulated bench"
echo "station ran 5 s in $station"

echo "== purge"
$sudo dpkg --purge quorvel
installed=""
! getent group quorvel >/dev/null || fail "purge left the group quorvel"
[ ! -e /usr/lib/quorvel ] || fail "purge left /usr/lib/quorvel"
[ ! -e /usr/lib/udev/rules.d/70-quorvel-station.rules ] || fail "purge left the udev rule"
echo "package-check: the package installs, runs and purges cleanly"
