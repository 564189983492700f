# shellcheck shell=sh
# For ./test --router and ./demo --router: what a virtual machine needs. Sourced at the tree's root,
# after lab/prepare.sh.

# prepare_machines KIND: what is missing for a machine of this kind; of any kind, unless it is x86-64.
prepare_machines() {
  require_root
  require_packages build router
  if [ ! -c /dev/net/tun ]; then
    echo "$0: there is no /dev/net/tun, through which a machine's network card is reached" >&2
    exit 1
  fi
  build release stock_build flood
  [ "$1" != x86-64 ] || return 0
  require_packages routers
  for preset in armhf mipsel; do
    # A folder of its own, so that the preset's can have its tests.
    folder=build/machines/$preset/build
    echo "Building $preset"
    quietly cmake --preset "$preset" -B "$folder" -DBONJOUR_TESTS=OFF -DBONJOUR_STOCK_KERNEL=ON
    quietly cmake --build "$folder" --target bonjour
  done
}
