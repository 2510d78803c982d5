# shellcheck shell=bash
# Sourced by the scripts beside it, after lib.sh: a Debian of its own, with systemd as PID 1 of namespaces of its own
# and no way to any other network. It takes root, and ends with the script.

machine_has=systemd,dbus,logrotate,iproute2,iputils-ping,openssl,nghttp2-client,man-db
machine_base=build/machine-$(cksum <<<"$machine_has" | cut -d ' ' -f 1).tar

# machine_can: whether there can be one here; says why not.
machine_can() {
  local why
  if [ "$(id -u)" -ne 0 ]; then
    why="it takes root"
  elif ! unshare --pid --mount --net --uts --ipc --cgroup --fork --mount-proc true 2>/dev/null; then
    why="there are no namespaces to be had"
  elif ! machine_make_base; then
    why="there is no Debian to be had"
  else
    return 0
  fi
  echo "LEFT OUT, for $why: a machine"
  return 1
}

machine_make_base() {
  [ -s "$machine_base" ] && return
  need mmdebstrap
  mkdir -p build
  mmdebstrap --quiet --variant=apt --include="$machine_has" bookworm build/unfinished.tar && mv build/unfinished.tar "$machine_base"
}

# machine_new ROOT: a fresh Debian in an empty folder, with what any machine has. The network of the host is there yet.
machine_new() {
  mkdir -p "$1"
  tar -x --numeric-owner --exclude='./dev/*' -f "$machine_base" -C "$1"
  cp /etc/resolv.conf "$1/etc/resolv.conf"
  rm -f "$1/usr/sbin/policy-rc.d"
  mkdir "$1/packages"
}

# machine_install ROOT PACKAGE...: installs files of packages, and what they depend on, before the machine runs.
machine_install() {
  local root=$1
  shift
  cp "$@" "$root/packages/"
  # shellcheck disable=SC2016 # the inner shell's
  unshare --mount bash -euo pipefail -c 'mount --make-rprivate /
    mount --rbind /dev "$1/dev"
    mount -t proc proc "$1/proc"
    mkdir -p "$1/var/cache/apt/archives"
    mount --bind /var/cache/apt/archives "$1/var/cache/apt/archives"
    cd "$1"
    chroot . env DEBIAN_FRONTEND=noninteractive apt-get -qq update
    chroot . env DEBIAN_FRONTEND=noninteractive apt-get -qq install --no-install-recommends -y \
      -o APT::Keep-Downloaded-Packages=true "${@:2}"' machine "$root" "${@/#*\//./packages/}" >/dev/null
}

# machine_start ROOT: boots it, and says so where systemd can't be had. Sets machine_pid, its PID 1.
machine_start() {
  # shellcheck disable=SC2016
  unshare --pid --mount --net --uts --ipc --cgroup --fork --kill-child bash -euo pipefail -c 'mount --make-rprivate /
    cd "$1"
    mount --bind . .
    cd "$1"
    mount -t proc proc proc
    mount -t sysfs sysfs sys
    for folder in dev run tmp sys/fs/cgroup; do mount -t tmpfs tmpfs "$folder"; done
    for device in null zero full random urandom tty; do
      touch "dev/$device"
      mount --bind "/dev/$device" "dev/$device"
    done
    mkdir dev/pts dev/shm
    mount -t devpts -o newinstance,ptmxmode=0666 devpts dev/pts
    ln -s pts/ptmx dev/ptmx
    if [ -e /sys/fs/cgroup/cgroup.controllers ]; then
      mount -t cgroup2 cgroup2 sys/fs/cgroup
    else
      mkdir sys/fs/cgroup/systemd
      mount -t cgroup -o none,name=systemd cgroup sys/fs/cgroup/systemd
    fi
    pivot_root . mnt
    umount -l /mnt
    exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd \
      --unit=multi-user.target --log-target=journal --show-status=false' machine "$1" </dev/null >"$1.log" 2>&1 &
  machine_unshare=$!
  disown
  local deadline=$((SECONDS + 60))
  until machine_pid=$(pgrep -P "$machine_unshare") && machine systemctl is-active -q multi-user.target 2>/dev/null; do
    [ $SECONDS -lt $deadline ] || { cat "$1.log" && echo "LEFT OUT, for systemd does not boot here: a machine" && return 1; }
    sleep 0.2
  done
  machine ip link set lo up
}

# machine COMMAND...: runs it there.
machine() {
  nsenter -t "$machine_pid" --all --root --wd env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

machine_stop() {
  [ -z "${machine_unshare:-}" ] || kill -9 "$machine_unshare" 2>/dev/null || true
}

# next_packages FOLDER PACKAGE...: the same packages with a higher version, to upgrade to.
next_packages() {
  local folder=$1 package version
  shift
  mkdir -p "$folder"
  for package in "$@"; do
    version=$(dpkg-deb -f "$package" Version)
    rm -rf "$folder/tree"
    dpkg-deb -R "$package" "$folder/tree"
    sed -i "s/^Version: .*/&+1/; s/(= $version)/(= $version+1)/" "$folder/tree/DEBIAN/control"
    dpkg-deb -b "$folder/tree" "$folder" >/dev/null
  done
  rm -rf "$folder/tree"
}
