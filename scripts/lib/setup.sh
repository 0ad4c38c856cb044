# Sourced by the scripts in the folder above and by .ci/run, after they have changed to the root of the
# repository: prints the usage for -h, installs missing Debian packages, builds.
# shellcheck shell=bash disable=SC2034

caller_folder=$OLDPWD

# from_caller PATH: makes a path absolute, relative to the caller's folder.
from_caller() { (cd "$caller_folder" && realpath -m "$1"); }

# usage [STATUS]: prints the comment at the head of the running script and ends it, by default with 2.
usage() {
  local out=2
  [ "${1-2}" -ne 0 ] || out=1
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$(from_caller "$0")" >&$out
  exit "${1-2}"
}
case ${1-} in -h | --help) usage 0 ;; esac

# need PACKAGE...: installs missing packages as root; for other users prints what to install.
need() {
  local missing=() package
  if ! command -v dpkg-query >/dev/null; then
    echo "Not a Debian system: what is needed is listed in README.md." >&2
    return
  fi
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing Debian packages. As root: apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  echo "Installing: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  # A repository that cannot be reached matters only if it has the packages; the installation fails
  # then.
  apt-get update -qq -o Acquire::Retries=3 >&2 || echo "The package lists could not all be renewed." >&2
  apt-get install -y -qq -o Acquire::Retries=3 --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(g++ cmake ninja-build libc6-dev)
TEST_PACKAGES=(libseccomp-dev libgtest-dev libgmock-dev pkgconf binutils python3 libcpp-httplib-dev nlohmann-json3-dev)
CLANG_PACKAGES=(clang libclang-rt-dev)

# progress: copies the output of ninja or ctest; of the lines that report progress, one in ten seconds.
progress() {
  local line last='' next=0
  local steps='^\[[0-9]+/[0-9]+\]|^ *Start +[0-9]+:|^ *[0-9]+/[0-9]+ Test .* Passed '
  while IFS= read -r line; do
    if [[ ! $line =~ $steps ]]; then
      printf '%s\n' "$line"
    elif ((SECONDS >= next)); then
      printf '%s\n' "$line"
      last='' next=$((SECONDS + 10))
    else
      last=$line
    fi
  done
  [ -z "$last" ] || printf '%s\n' "$last"
}

# with_progress COMMAND...: runs it with its own display of progress on a terminal. Prints on standard error.
with_progress() {
  if [ -t 2 ]; then "$@" >&2; else "$@" 2>&1 | progress >&2; fi
}

# build PRESET: configures (once) and builds build/PRESET.
build() {
  [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
  # (one compiler for each processor: ninja's own choice of two more takes a tenth longer)
  with_progress cmake --build --preset "$1" --parallel "$(nproc)"
}
