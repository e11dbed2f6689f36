# Sourced by test.sh and demo.sh: installs the Debian packages the build and the tests need
# (systemd-analyze checks the service unit, dpkg-shlibdeps and objcopy make the .deb,
# clang-format checks the style).
KES_DEBIAN_PACKAGES=(cmake g++ make libgtest-dev libtinyxml-dev python3-pymodbus clang libclang-rt-14-dev faketime
  systemd dpkg-dev binutils file clang-format)

kes_install_deps() {
  local missing=()
  local p
  for p in "${KES_DEBIAN_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}
