# Sourced by the tools: installs the Debian packages that are missing, and only those.

# need_packages <package>... : returns once all are installed, or says what is wrong and exits.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query --show --showformat='${db:Status-Status}\n' "$package" 2>/dev/null |
      grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "Missing packages, and no sudo to install them. As root:" >&2
      echo "  apt-get install --yes --no-install-recommends ${missing[*]}" >&2
      exit 1
    fi
    as_root=(sudo)
  fi
  echo "Installing, which may take some minutes: ${missing[*]}"
  exec 8>"/tmp/ovra-packages-$(id -u).lock" && flock 8 # One tool at a time.
  # An index that is out of date names packages that no longer exist: refresh it and try once more.
  if ! install_packages >/dev/null 2>&1; then
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update && install_packages; } >"$log" 2>&1; then
      cat "$log" >&2
      echo "Could not install them; see above. Where the network works, as root:" >&2
      echo "  apt-get update && apt-get install --yes --no-install-recommends ${missing[*]}" >&2
      exit 1
    fi
    rm -f "$log"
  fi
  exec 8>&-
}

# The install step of need_packages, with its variables.
install_packages() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -o DPkg::Lock::Timeout=600 install --yes --no-install-recommends "${missing[@]}"
}
