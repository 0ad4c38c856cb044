# Sourced by the scripts in the folder above, right after they have gone to the root of the repository:
# installs Debian packages that are missing, builds, and reads what the caller said.

caller_folder=$OLDPWD

# from_caller PATH: a path as the caller meant it, made absolute.
from_caller() { (cd "$caller_folder" && realpath -m "$1"); }

# usage: prints the comment at the head of the running script and ends it.
usage() {
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/${0##*/}" >&2
  exit 2
}

# need PACKAGE...: when something is missing, root installs it; anybody else is told what to install.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing Debian packages. As root: apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  echo "Installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  # Some other repository of the machine may be out of reach: whether these packages are is install's word.
  apt-get update -qq -o Acquire::Retries=3 >&2 || echo "The package lists could not all be renewed." >&2
  apt-get install -y -qq -o Acquire::Retries=3 --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(g++ cmake ninja-build libc6-dev)
TEST_PACKAGES=(libgtest-dev libgmock-dev pkgconf binutils)

# build PRESET: configures (once) and builds build/PRESET. Quiet unless it fails.
build() {
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -- --quiet
}
