# shellcheck shell=sh
# What ./demo, ./test and others need: packages, rights, builds. Sourced in the top-level folder.

require_root() {
  if [ "$(id -u)" != 0 ]; then
    echo "$0: must be run as root: it creates network namespaces and installs packages" >&2
    exit 1
  fi
}

# require_packages GROUP...: installs the missing ones of the packages that packages.txt lists.
require_packages() {
  missing=
  for group in "$@"; do
    packages=$(sed -n "s/^$group //p" packages.txt)
    for package in $packages; do
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
    # shellcheck disable=SC2086 # a word for each package
    quietly apt-get -q install -y --no-install-recommends $missing
  fi
}

# quietly COMMAND...: shows what it prints only if it fails.
quietly() {
  printed=$("$@" 2>&1 < /dev/null) || {
    status=$?
    printf '%s\nfailed: %s\n' "$printed" "$*" >&2
    return $status
  }
}

# build PRESET [TARGET...]
build() {
  /usr/bin/python3 -B lab/build.py "$@"
}
