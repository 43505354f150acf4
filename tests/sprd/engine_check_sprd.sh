#!/bin/sh
# quorvel-engine-check on the native SPRD engine with a simulated phone behind it.
# Usage: engine_check_sprd.sh ENGINE_CHECK SPRD_FLASH SPRD_PHONE
set -eu
check=$1 flash=$2 phone=$3
dir=$(mktemp -d)
pid=
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$dir"' EXIT

head -c 3000 /dev/urandom >"$dir/fdl1.bin"
head -c 5001 /dev/urandom >"$dir/fdl2.bin"
head -c 300000 /dev/urandom >"$dir/boot.img"
head -c 3000001 /dev/urandom >"$dir/system.img"
cat >"$dir/config.xml" <<'EOF'
<BMAConfig><SchemeList><Scheme name="check">
 <File><ID>FDL</ID><Block><Base>0x5000</Base></Block></File>
 <File><ID>FDL2</ID><Block><Base>0x9efffe00</Base></Block></File>
 <File><ID>BOOT</ID><Type>CODE</Type><Block id="boot"/></File>
 <File><ID>EraseUserdata</ID><Type>EraseFlash</Type><Block id="userdata"/><Flag>0</Flag></File>
 <File><ID>SYSTEM</ID><Type>CODE</Type><Block id="system"/></File>
</Scheme></SchemeList></BMAConfig>
EOF
for f in FDL:fdl1.bin FDL2:fdl2.bin BOOT:boot.img SYSTEM:system.img; do
  printf '%s\t%s\t%s\t1\n' "${f%%:*}" "$dir/${f#*:}" "$(wc -c <"$dir/${f#*:}")"
done >"$dir/files.txt"

# One phone for every run of the kit: --keep boots it again after each reset.
"$phone" --listen "unix:$dir/phone.sock" --keep >"$dir/phone.out" 2>&1 &
pid=$!
"$check" --fail-args "--files $dir/no-such-list" "$flash" --package "$dir/config.xml" --files "$dir/files.txt" \
  --phase all --transport "unix:$dir/phone.sock" --timeout-ms 3000 ProductName=check SelectedFileCount=4
