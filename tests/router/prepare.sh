# shellcheck shell=sh
# For run and demo: what a virtual machine needs. Sourced at the tree's root, after lab/prepare.sh.

# check_options OPTION... -- WORD...: refuses words that are none of these options, before anything is
# installed; --help calls help().
check_options() {
  known=
  while [ "$1" != -- ]; do
    known="$known $1"
    shift
  done
  shift
  while [ $# -gt 0 ]; do
    case "$1" in -h | --help) help; exit ;; esac
    case "$known " in *" $1 "*) ;; *) refuse_option "there is no option '$1'" ;; esac
    case "$1" in
      --kind)
        grep -qs "^    \"${2-}\": Kind(" lab/vm/kinds.py || refuse_option "there is no kind '${2-}'"
        shift ;;
      -k) [ $# -gt 1 ] || refuse_option "-k takes an expression"; shift ;;
    esac
    shift
  done
}

refuse_option() {
  echo "$0: $1; --help lists the options" >&2
  exit 2
}

# prepare_machines all|x86-64: what is missing for machines of every kind, or for the first alone.
prepare_machines() {
  require_root
  require_packages build router
  if [ ! -c /dev/net/tun ]; then
    echo "$0: there is no /dev/net/tun, through which a machine's network card is reached" >&2
    exit 1
  fi
  build release stock_build flood
  [ "$1" = all ] || return 0
  require_packages routers
  for preset in armhf mipsel; do
    # A folder of its own, so that the preset's can have its tests.
    folder=build/machines/$preset/build
    echo "Building $preset"
    quietly cmake --preset "$preset" -B "$folder" -DBONJOUR_TESTS=OFF -DBONJOUR_STOCK_KERNEL=ON
    quietly cmake --build "$folder" --target bonjour
  done
}
