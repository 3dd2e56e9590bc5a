# shellcheck shell=bash
# shellcheck disable=SC2034 # the sourcing scripts read these
# Sourced by the VM scripts: what differs between the machines they boot.
#
# MARLO_VM_ARCH chooses the guest: amd64 (default; KVM when usable, else
# emulated) or arm64 (always emulated: qemu-system-aarch64 -M virt, a
# Cortex-A72). Names follow Debian's architectures.

vm_arch=${MARLO_VM_ARCH:-amd64}
case "$vm_arch" in
amd64)
    vm_qemu=qemu-system-x86_64
    vm_qemu_package=qemu-system-x86
    vm_machine=()
    vm_console=ttyS0
    vm_triplet=x86_64-linux-gnu
    vm_default_build=build
    ;;
arm64)
    vm_qemu=qemu-system-aarch64
    vm_qemu_package=qemu-system-arm
    vm_machine=(-M virt -cpu cortex-a72)
    vm_console=ttyAMA0
    vm_triplet=aarch64-linux-gnu
    vm_default_build=build-arm64
    ;;
*)
    echo "vm: unknown MARLO_VM_ARCH '$vm_arch' (amd64 or arm64)" >&2
    exit 2
    ;;
esac

# apt's name of a package of the guest's architecture.
vm_package() {
    if [ "$vm_arch" = "amd64" ]; then
        echo "$1"
    else
        echo "$1:$vm_arch"
    fi
}

# The guest's static busybox: the host's own on amd64, else the one that
# fetch.sh unpacked from Debian's package of the guest's architecture.
vm_busybox() {
    if [ "$vm_arch" = "amd64" ]; then
        echo /bin/busybox
    else
        echo "$1/busybox/bin/busybox"
    fi
}

# vm_shared_libraries LIBRARY_PATH BINARY...: prints every shared library
# the binaries load, their dependencies included, by its path on this
# machine. LIBRARY_PATH (colon-separated) names the build's own library
# directories, searched first. On amd64 the host's loader answers (ldd); for
# another guest the ELF files are read: each DT_NEEDED name is looked up in
# the guest's multiarch directories, and the program interpreter is added.
vm_shared_libraries() {
    local library_path=$1
    shift
    if [ "$vm_arch" = "amd64" ]; then
        local binary
        for binary in "$@"; do
            LD_LIBRARY_PATH="$library_path" ldd "$binary" |
                sed -n 's/.*=> \(\/[^ ]*\) .*/\1/p; s/^\t\(\/[^ ]*\) .*/\1/p'
        done | sort -u
        return
    fi
    local readelf="$vm_triplet-readelf"
    local search_dirs=()
    IFS=: read -r -a search_dirs <<<"$library_path"
    search_dirs+=("/lib/$vm_triplet" "/usr/lib/$vm_triplet" "/usr/$vm_triplet/lib")
    local -A seen=()
    local queue=("$@") file name dir found
    while [ ${#queue[@]} -gt 0 ]; do
        file=${queue[0]}
        queue=("${queue[@]:1}")
        "$readelf" -l "$file" | sed -n 's/.*\[Requesting program interpreter: \(.*\)\]/\1/p'
        for name in $("$readelf" -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            [ -z "${seen[$name]:-}" ] || continue
            seen[$name]=1
            found=""
            for dir in "${search_dirs[@]}"; do
                if [ -e "$dir/$name" ]; then
                    found="$dir/$name"
                    break
                fi
            done
            if [ -z "$found" ]; then
                echo "vm: $name (needed by $file) not found" >&2
                return 1
            fi
            echo "$found"
            queue+=("$found")
        done
    done | sort -u
}
