# Sourced by the tools: installs the Debian packages that are missing, and only those.

. tools/steps.sh

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
    sudo true || exit 1 # It asks for the password before a line is drawn.
  fi
  echo "Packages are missing: to install them may take some minutes."
  exec 8>"/tmp/ovra-packages-$(id -u).lock" && flock 8 # One tool at a time.
  begin_steps "$(mktemp)" "install ${missing[*]}"
  if ! step install_packages; then
    echo "Could not install them; see above. Where the network works, as root:" >&2
    echo "  apt-get update && apt-get install --yes --no-install-recommends ${missing[*]}" >&2
    exit 1
  fi
  rm -f "$details"
  exec 8>&-
}

# The steps below have the variables of need_packages.

# An index that is out of date names packages that no longer exist: refresh it and try once more.
install_packages() {
  try_to_install || { "${as_root[@]}" apt-get update && try_to_install; }
}

try_to_install() {
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -o DPkg::Lock::Timeout=600 install --yes --no-install-recommends "${missing[@]}"
}
