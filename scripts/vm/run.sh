#!/usr/bin/env bash
# Usage: scripts/vm/run.sh COMMAND...
#
# Boots the Debian kernel unpacked by fetch.sh with the initramfs of
# mkinitramfs.sh in QEMU, runs COMMAND (a busybox sh command line) inside,
# with the serial console on standard output, and exits with COMMAND's
# status (124 when the VM timed out, 125 when it ended without a status).
# The machine has a virtio-gpu display (no window) and no network.
#
# Environment: MARLO_VM_ARCH (amd64 or arm64, see arch.sh), MARLO_VM_CACHE
# (default build/vm-cache, build-arm64/vm-cache for arm64), MARLO_VM_TIMEOUT
# seconds (default 300), MARLO_VM_MEMORY (default 1G), MARLO_VM_KVM=0 to
# force the emulator even when /dev/kvm is usable (an arm64 guest is always
# emulated), MARLO_VM_OVERLAYS (more initramfs archives, colon-separated,
# unpacked over the first one in the order given), MARLO_VM_MONITOR=PATH
# (QEMU's monitor on the FIFOs PATH.in and PATH.out, which the caller makes).
set -euo pipefail

if [ $# -eq 0 ]; then
    echo "usage: scripts/vm/run.sh COMMAND..." >&2
    exit 2
fi

source_dir=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=scripts/vm/arch.sh
source "$source_dir/scripts/vm/arch.sh"
cache=${MARLO_VM_CACHE:-$source_dir/$vm_default_build/vm-cache}
timeout_s=${MARLO_VM_TIMEOUT:-300}
memory=${MARLO_VM_MEMORY:-1G}
version=$(cat "$cache/kernel-version" 2>/dev/null || true)
kernel="$cache/kernel/boot/vmlinuz-$version"
initramfs="$cache/initramfs.cpio.gz"
if [ -z "$version" ] || [ ! -f "$kernel" ] || [ ! -f "$initramfs" ]; then
    echo "vm: no kernel or initramfs in $cache (run scripts/vm/fetch.sh and mkinitramfs.sh)" >&2
    exit 2
fi

work=$(mktemp -d)
# shellcheck disable=SC2317 # run by the trap
cleanup() {
    # A QEMU still running (the script was interrupted) goes with it.
    [ -f "$work/qemu.pid" ] && kill "$(cat "$work/qemu.pid")" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

# The command travels as a second cpio archive appended to the initramfs:
# the kernel unpacks both, so the big one is built once.
mkdir "$work/extra"
printf '%s\n' "$*" >"$work/extra/run-command"
(cd "$work/extra" && echo run-command | cpio -o -H newc --quiet) | gzip -1 >"$work/command.cpio.gz"
overlays=()
if [ -n "${MARLO_VM_OVERLAYS:-}" ]; then
    IFS=: read -r -a overlays <<<"$MARLO_VM_OVERLAYS"
fi
cat "$initramfs" "${overlays[@]}" "$work/command.cpio.gz" >"$work/initramfs.cpio.gz"

display=(-vga none -device virtio-gpu-pci)
monitor=()
if [ -n "${MARLO_VM_MONITOR:-}" ]; then
    # shellcheck disable=SC2054 # commas separate QEMU's sub-options
    monitor=(-chardev "pipe,id=monitor,path=$MARLO_VM_MONITOR" -mon chardev=monitor,mode=readline)
fi

# boot BOOT_LIMIT ACCEL...: runs QEMU with the given accelerator options;
# kills it when the guest is not up after BOOT_LIMIT seconds.
boot() {
    local limit=$1
    shift
    rm -f "$work/qemu.pid" "$work/qemu.status"
    : >"$log"
    {
        local status=0
        timeout "$timeout_s" "$vm_qemu" "${vm_machine[@]}" \
            "$@" -m "$memory" -smp 2 \
            -nographic -no-reboot -nic none -pidfile "$work/qemu.pid" \
            "${display[@]}" "${monitor[@]}" \
            -kernel "$kernel" -initrd "$work/initramfs.cpio.gz" \
            -append "console=$vm_console quiet loglevel=3 panic=-1 rdinit=/init" </dev/null ||
            status=$?
        echo "$status" >"$work/qemu.status"
    } | tee "$log" &
    local pipeline=$!
    local waited=0
    while kill -0 "$pipeline" 2>/dev/null && ! is_up; do
        if [ "$waited" -ge "$((limit * 10))" ]; then
            echo "vm: no boot within $limit s" >&2
            [ -f "$work/qemu.pid" ] && kill "$(cat "$work/qemu.pid")" 2>/dev/null
            break
        fi
        sleep 0.1
        waited=$((waited + 1))
    done
    wait "$pipeline" || true
    rm -f "$work/qemu.pid"
    qemu_status=$(cat "$work/qemu.status" 2>/dev/null || echo 1)
}

is_up() {
    tr -d '\r' <"$log" | grep -q '^vm: up after'
}

log="$work/console.log"
: >"$log"
qemu_status=1
# Some (nested) KVM hosts refuse to run the guest or reject MSRs of their own
# CPU model: fall back to the emulator when the guest did not come up.
if [ "$vm_arch" = "amd64" ] && [ "${MARLO_VM_KVM:-1}" != "0" ] && (exec 3<>/dev/kvm) 2>/dev/null; then
    boot "${MARLO_VM_KVM_BOOT_LIMIT:-15}" -enable-kvm -cpu host,-arch-capabilities
    if ! is_up; then
        echo "vm: KVM did not boot the guest, using the emulator" >&2
    fi
fi
if ! is_up; then
    boot "$timeout_s" -accel tcg
fi

if [ "$qemu_status" -eq 124 ]; then
    echo "vm: timed out after $timeout_s s" >&2
    exit 124
fi
status=$(tr -d '\r' <"$log" | sed -n 's/^MARLO_VM_EXIT=\([0-9]*\)$/\1/p' | tail -n 1)
if [ -z "$status" ]; then
    echo "vm: the VM ended without the command's status (qemu status $qemu_status)" >&2
    exit 125
fi
exit "$status"
