# Sourced by the set-up scripts: install_missing PACKAGE... installs, with
# apt-get (through sudo when not root), those of the Debian packages that are
# not installed yet; it returns 0 and sets INSTALL_MISSING_UPDATED=yes when it
# ran `apt-get update`.
INSTALL_MISSING_UPDATED=""
SUDO_CMD=()
[ "$(id -u)" -eq 0 ] || SUDO_CMD=(sudo)

install_missing() {
  local missing=() p
  for p in "$@"; do
    [ "$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null)" = "install ok installed" ] || missing+=("$p")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "== installing: ${missing[*]}"
  "${SUDO_CMD[@]}" apt-get update -qq
  INSTALL_MISSING_UPDATED=yes
  DEBIAN_FRONTEND=noninteractive "${SUDO_CMD[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
