#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The demo: a tour of karstctl against the secure-world emulator, in a fresh run root.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh libssl-dev zlib1g-dev openssl libcli11-dev libsystemd-dev dbus-daemon
cmake -S . -B build/demo -G Ninja -DKARST_TEE=emulator -DCMAKE_BUILD_TYPE=Release \
      -DKARST_BUILD_TESTS=OFF >/dev/null
cmake --build build/demo --target karstctl karst-emu-setup karstd >/dev/null

PATH="$PWD/build/demo/tools/karstctl:$PATH"
export KARST_ROOT
KARST_ROOT=$(mktemp -d /tmp/karst-demo-XXXXXX)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null; rm -rf "$KARST_ROOT"' EXIT
build/demo/emulator/karst-emu-setup "$KARST_ROOT"
work=$KARST_ROOT/tmp
started=$SECONDS
summary=()

step() { printf '\n== %s\n' "$*"; }
# Shows a command, then runs it.
run() {
    printf '$ %s\n' "$*"
    "$@"
}
done_step() { summary+=("$*"); }

echo "karst demo: karstctl against the emulator; run root $KARST_ROOT"
echo "(the board's /nv1, /tmp, /dev live under it; 'karstctl --help' lists every command)"

step "U-Boot environment: one process sets a variable, the next reads it back"
value="bootm 0x20080000 - 0x83000000 # set $(date -u +%FT%TZ)"
run karstctl env set bootcmd "$value"
run karstctl env get bootcmd
done_step "U-Boot environment: bootcmd set and read back"

step "Inventory: values go to the secure world and the inventory file"
run karstctl inventory set BMC_VERSION 2.10.1
run karstctl inventory set BIOS_VERSION 'Rev 1.2a'
echo "(a BIOS version written as 'Rev' is read back as 'Ver', and corrected everywhere)"
run karstctl inventory get BIOS_VERSION
echo "--- $work/inventory.txt:"
cat "$work/inventory.txt"
legacy="$KARST_ROOT/nv1/fw_inventory_legacy.txt"
printf '%s\n' 'BIOS_VERSION=Ver 1.2a' 'CPLD_VERSION=0x0C' >"$legacy"
echo "(a legacy firmware inventory file: BIOS_VERSION is held already, CPLD_VERSION is not)"
run karstctl inventory import "$legacy"
run karstctl inventory get CPLD_VERSION
done_step "Inventory: BIOS_VERSION corrected to '$(karstctl inventory get BIOS_VERSION | tail -n 1)', CPLD_VERSION imported"

step "Secure registers"
run karstctl memreg 1e6e2070 3
done_step "Secure registers: 3 read"

step "Firmware: a 64 MiB BIOS image arrives in its staging slot and is uploaded"
staging="$KARST_ROOT/nv1/bios_staging.bin"
{
    printf '\123\000\000\001karst demo BIOS image' # a signature table version word first
    head -c $((64 * 1024 * 1024 - 25)) /dev/zero | tr '\0' '\377'
} >"$staging"
run karstctl sigtbl "$staging" >"$work/sigtbl.txt"
head -n 3 "$work/sigtbl.txt" | sed 's/^/  /'
run karstctl image auth bios staging
run karstctl image upload bios staging

step "Update the BIOS: backup and evidence dumps first, then the programming, with its progress"
run karstctl image update bios staging --backup --evidence
ls -l "$KARST_ROOT/nv1/bios_backup.bin" "$KARST_ROOT/nv1/bios_evidence.bin" | sed 's/^/  /'
done_step "Firmware: 64 MiB BIOS image authenticated, uploaded and programmed (with backup and evidence)"

step "Dump the active BMC image from the eMMC"
run karstctl image dump bmc active -o "$work/bmc.bin" 2>/dev/null
printf '  %s bytes, first bytes: ' "$(stat -c %s "$work/bmc.bin")"
head -c 31 "$work/bmc.bin" | tr -c '[:print:]' '.'
echo
done_step "Active BMC image dumped ($(stat -c %s "$work/bmc.bin") bytes)"

step "Attestation dump: the secure world signs the evidence gathered for a nonce"
spdm=$KARST_ROOT/tmp/spdm/aoc/boot_run
mkdir -p "$spdm/spdm_saved_cert_chains" "$spdm/spdm_saved_measurements_bins/gpu0" \
    "$KARST_ROOT/etc/defaults"
echo "(SPDM evidence a device left behind: a certificate chain, a measurement, a root CA)"
head -c 1400 /dev/urandom >"$spdm/spdm_saved_cert_chains/gpu0.der"
head -c 200 /dev/urandom >"$spdm/spdm_saved_measurements_bins/gpu0/boot.bin"
head -c 900 /dev/urandom >"$KARST_ROOT/etc/defaults/spdm_dalu_rootCA.der"
nonce=demo-$(date -u +%H%M%S)
run karstctl attest dump "$nonce" -o "$work/attestation.bin"
echo "The statement the device key signed (bytes 65,536 to 65,791 of the result):"
dd if="$work/attestation.bin" bs=1 skip=65536 count=256 status=none | tr -d '\000'
done_step "Attestation dump for nonce $nonce ($(stat -c %s "$work/attestation.bin") bytes)"

step "The device's certificate chain, read by openssl"
for cert in root second third device; do
    run karstctl cert get "$cert" -o "$work/$cert.der"
    openssl x509 -inform DER -in "$work/$cert.der" -noout -subject -issuer | sed 's/^/    /'
done
cat "$work/second.der" "$work/third.der" >"$work/issuers.der"
run karstctl cert auth "$work/device.der" "$work/issuers.der"
done_step "Certificate chain: 4 certificates fetched, the device's checked by the secure world"

step "CSR: the secure world makes a certificate signing request for its own key"
run karstctl cert csr 'CN=bmc-demo,O=karst,C=US' -o "$work/bmc.csr"
run openssl req -inform DER -in "$work/bmc.csr" -noout -subject -verify
done_step "CSR made and verified by openssl"

step "Sign a file in the secure world; verify it there and with openssl"
data=$work/measurements.txt
echo "boot measurements $(date -u +%FT%TZ)" >"$data"
run karstctl sign "$data"
run karstctl verify "$data" "$data.sig"
openssl req -inform DER -in "$work/bmc.csr" -pubkey -noout >"$work/device.pem" 2>/dev/null
run openssl dgst -sha256 -verify "$work/device.pem" -signature "$data.sig" "$data"
echo "tampered" >>"$data"
echo "(the file is changed)"
run karstctl verify "$data" "$data.sig" || echo "(exit status $?)"
done_step "Signature made, verified by the secure world and openssl, a tampered file rejected"

step "Board serial number"
run karstctl otp getsn
done_step "Board serial number: $(karstctl otp getsn)"

step "karstd: the same secure world on D-Bus, as a controller's Redfish front end reaches it"
echo "(a private bus with the system bus's rules and karstd's policy; karstd on the emulator)"
cat >"$KARST_ROOT/bus.conf" <<XML
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=$KARST_ROOT/bus</listen>
<policy context="default"><allow user="*"/><deny own="*"/><deny send_type="method_call"/>
<allow send_type="signal"/><allow send_requested_reply="true" send_type="method_return"/>
<allow send_requested_reply="true" send_type="error"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
<allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/></policy>
<policy user="$(id -un)"><allow own="xyz.openbmc_project.Software.Karst"/>
<allow send_destination="xyz.openbmc_project.Software.Karst"/></policy>
<include>$PWD/build/demo/tools/karstd/xyz.openbmc_project.Software.Karst.conf</include>
</busconfig>
XML
dbus-daemon --config-file="$KARST_ROOT/bus.conf" --fork --print-pid=3 3>"$work/bus.pid"
pids+=("$(cat "$work/bus.pid")")
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$KARST_ROOT/bus
build/demo/tools/karstd/karstd --state-dir "$KARST_ROOT/run/karstd" >"$work/karstd.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
    busctl --system status xyz.openbmc_project.Software.Karst >/dev/null 2>&1 && break
    sleep 0.1
done
service=xyz.openbmc_project.Software.Karst
run busctl --system tree $service
# StartUpdate takes the image as a file descriptor. busctl of systemd 252 cannot pass one from
# its command line, so a few lines of sd-bus do what "busctl call ... StartUpdate hs 3 ..." does.
cc -x c -o "$work/start-update" - -lsystemd <<'C'
#include <systemd/sd-bus.h>
#include <stdio.h>
/* start-update OBJECT APPLY_TIME, the image on descriptor 3 */
int main(int argc, char **argv) {
    sd_bus *bus = NULL;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message *reply = NULL;
    const char *path = NULL;
    if (argc != 3 || sd_bus_open_system(&bus) < 0) return 2;
    if (sd_bus_call_method(bus, "xyz.openbmc_project.Software.Karst", argv[1],
                           "xyz.openbmc_project.Software.Update", "StartUpdate", &error, &reply,
                           "hs", 3, argv[2]) < 0 ||
        sd_bus_message_read(reply, "o", &path) < 0) {
        fprintf(stderr, "%s: %s\n", error.name, error.message);
        return 1;
    }
    printf("o \"%s\"\n", path);
    return 0;
}
C
echo "The BIOS image goes as a file descriptor (3, opened on the image):"
answer=$(run "$work/start-update" /xyz/openbmc_project/software/karst/bios \
    xyz.openbmc_project.Software.ApplyTime.RequestedApplyTimes.Immediate 3<"$staging")
echo "$answer"
update=$(echo "$answer" | sed -n 's/^o "\(.*\)"$/\1/p')
# A property's value alone.
value() {
    busctl --system get-property $service "$update" "xyz.openbmc_project.Software.$1" "$2" |
        sed 's/^[a-z] //; s/"//g'
}
echo "Progress, read as it changes, while Activation is Activating:"
last=""
while value Activation Activation | grep -q '\.Activating$'; do
    percent=$(value ActivationProgress Progress)
    [ "$percent" = "$last" ] || printf '  %s%%\n' "$percent"
    last=$percent
    sleep 0.2
done
run busctl --system get-property $service "$update" xyz.openbmc_project.Software.Activation \
    Activation
run busctl --system get-property $service "$update" \
    xyz.openbmc_project.Software.ActivationProgress Progress
done_step "karstd: BIOS image pushed over D-Bus, $(value Activation Activation | sed 's/.*\.//')" \
    "at $(value ActivationProgress Progress)%"

echo
echo "== Summary ($((SECONDS - started)) s)"
for line in "${summary[@]}"; do
    echo "  ok  $line"
done
echo "Demo finished."
