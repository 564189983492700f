# For ./demo and ./test: what has to be on the machine, and the builds. Sourced at the tree's root.

require_root() {
  if [ "$(id -u)" != 0 ]; then
    echo "$0: must be run as root: it makes network namespaces and installs packages" >&2
    exit 1
  fi
}

# require_packages GROUP...: installs what packages.txt lists for these groups and is missing.
require_packages() {
  missing=
  for group in "$@"; do
    for package in $(sed -n "s/^$group //p" packages.txt); do
      case $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) in
        installed) ;;
        *) missing="$missing $package" ;;
      esac
    done
  done
  if [ -n "$missing" ]; then
    echo "Installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    quietly apt-get -q update
    # shellcheck disable=SC2086 # one word a package
    quietly apt-get -q install -y --no-install-recommends $missing
  fi
}

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
  printed=$(mktemp)
  if "$@" > "$printed" 2>&1 < /dev/null; then
    rm -f "$printed"
  else
    status=$?
    cat "$printed" >&2
    rm -f "$printed"
    echo "failed: $*" >&2
    return $status
  fi
}

# build PRESET [TARGET...]
build() {
  preset=$1
  shift
  [ $# = 0 ] || set -- --target "$@"
  quietly cmake --preset "$preset"
  quietly cmake --build --preset "$preset" "$@"
}
