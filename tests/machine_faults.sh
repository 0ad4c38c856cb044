#!/usr/bin/env bash
# Faults of the environment: machine_faults.sh PROGRAM DATA
# Full disks and read-only trees (small tmpfs mounts, so root only; ends with 77, "skipped",
# otherwise), missing permissions, descriptors and memory, inputs that shrink, obstacles in the tree.
# In all cases, a target is the old file or the complete new one, and no other file is left.
set -uo pipefail
program=$(realpath "$1")
data=$(realpath "$2")
[ "$(id -u)" -eq 0 ] || exit 77

scratch=$(mktemp -d /tmp/symforge_faults.XXXXXX)
tree=$scratch/tree
trap 'umount -q "$tree"; rm -rf "$scratch"' EXIT
mkdir "$tree"
chmod 755 "$scratch"
mount -t tmpfs -o size=64k none "$tree" || exit 77
umount "$tree"

failures=0
report() {  # report NAME CONDITION...
  local name=$1
  shift
  if "$@"; then
    echo "ok       $name"
  else
    echo "FAILED   $name; said: $(head -c 300 "$scratch/err")"
    failures=$((failures + 1))
  fi
}

# Inputs: a pair from a real tool chain, and its text in a short and a longer form.
cp "$data"/engine64.{pdb,exe} "$scratch/"
"$program" "$scratch/engine64.pdb" >"$scratch/new.sym"
head -n 40 "$scratch/new.sym" >"$scratch/old.sym"
id=$(awk 'NR == 1 { print $4 }' "$scratch/new.sym")
target=$tree/engine64.pdb/$id/engine64.sym

convert() { "$program" "$@" >/dev/null 2>"$scratch/err"; }
said() { grep -q "$1" "$scratch/err"; }
no_strays() { [ -z "$(find "$tree" -type f ! -name '*.sym' ! -name '*.symb')" ]; }
target_is() { cmp -s "$scratch/$1" "$target"; }
old_or_new() { target_is old.sym && said . || target_is new.sym; }

# A disk that becomes full at every stage: bytes, then files.
full_disk() {
  mount -t tmpfs -o "$1" none "$tree" || return 1
  local result=0
  if convert "$scratch/old.sym" "$tree" && [ -e "$target" ]; then
    convert "$scratch/engine64.pdb" "$tree"
    old_or_new || result=1
  else
    said 'failed to\|mkdir' && [ ! -e "$target" ] || [ ! -s "$scratch/err" ] || result=1
  fi
  no_strays || result=1
  umount "$tree"
  return "$result"
}
for kilobytes in 4 8 12 16 20 24 28 32 48 64 128; do
  report "disk of $kilobytes KiB" full_disk "size=${kilobytes}k"
done
for files in 1 2 3 4 5 6 7; do
  report "room for $files files" full_disk "nr_inodes=$files"
done

read_only() {
  mount -t tmpfs none "$tree" && convert "$scratch/old.sym" "$tree" && mount -o remount,ro "$tree" || return 1
  convert "$scratch/new.sym" "$tree"
  local status=$?
  target_is old.sym && said 'failed to mkstemp: 30' && no_strays && [ "$status" -eq 0 ]
}
report "read-only tree" read_only
umount "$tree"

new_tree() {
  rm -rf "$tree"
  mkdir "$tree"
  convert "$scratch/old.sym" "$tree"
}

no_rights() {
  new_tree
  chmod 644 "$scratch/new.sym"
  setpriv --reuid 65534 --clear-groups "$program" "$scratch/new.sym" "$tree" 2>"$scratch/err"
  said 'failed to' && target_is old.sym
}
report "somebody else's tree" no_rights

few_descriptors() {
  new_tree
  prlimit --nofile="$1" "$program" "$scratch/engine64.pdb" "$tree" 2>"$scratch/err"
  old_or_new && no_strays
}
for count in 3 4 5 6; do report "$count file descriptors" few_descriptors "$count"; done

# Without memory, an exception that is not caught may end a conversion.
little_memory() {
  new_tree
  (ulimit -c 0 -v "$1" && convert "$scratch/big.sym" "$tree") 2>>"$scratch/err"
  { target_is old.sym && said . || target_is big.sym; } && no_strays || return 1
  (ulimit -c 0 -v "$1" && convert -b "$scratch/big.sym" "$tree") 2>>"$scratch/err"
  { [ ! -e "${target}b" ] && said . || cmp -s "$scratch/big.symb" "${target}b"; } && no_strays
}
cp "$scratch/new.sym" "$scratch/big.sym"
for _ in $(seq 12); do
  sed -n '/^FUNC/,/^PUBLIC/p' "$scratch/new.sym"
done | awk '{ for (i = 0; i < 200; ++i) print }' >>"$scratch/big.sym"
"$program" -b "$scratch/big.sym" >"$scratch/big.symb" 2>/dev/null
for kilobytes in 8000 16000 24000 32000 48000 64000 128000; do
  report "$kilobytes KiB of address space" little_memory "$kilobytes"
done

# An input that is truncated or deleted while it is read: the target is never a partial file, and the run
# exits normally or with the signal for accessing a mapping beyond the end of its file.
changes() {  # changes INPUT COMMAND...
  new_tree
  cp "$scratch/$1" "$scratch/changing.${1##*.}"
  "$program" "$scratch/changing.${1##*.}" "$tree" >/dev/null 2>"$scratch/err" &
  "${@:2}" "$scratch/changing.${1##*.}"
  wait $! 2>/dev/null
  case $? in 0 | 1 | 134 | 135) ;; *) return 1 ;; esac
  local found
  while read -r found; do
    [ -z "$(tail -c 1 "$found")" ] && [ "$(head -c 6 "$found")" = MODULE ] || return 1
  done < <(find "$tree" -type f)
  target_is old.sym || target_is big.sym
}
for round in $(seq 5); do
  report "PDB that shrinks, $round" changes engine64.pdb truncate -s $((RANDOM * 3))
  report "PDB that vanishes, $round" changes engine64.pdb rm
  report "text that vanishes, $round" changes big.sym rm
done

# Standard mode: the same faults yield a status and one line, and never a signal.
one_line() { [ "$(wc -l <"$scratch/err")" -eq 1 ] && said "^symforge: $scratch/[^:]*: "; }
standard_full_disk() {
  mount -t tmpfs -o size=16k none "$tree" || return 1
  convert --standard "$scratch/big.sym" "$tree"
  local status=$?
  [ "$status" -eq 1 ] && one_line && said 'No space left on device' && no_strays
  local result=$?
  umount "$tree"
  return "$result"
}
report "standard mode, full disk" standard_full_disk

standard_little_memory() {
  new_tree
  (ulimit -c 0 -v "$1" && convert --standard -b "$scratch/big.sym" "$tree") 2>>"$scratch/err"
  case $? in
    0) cmp -s "$scratch/big.symb" "${target}b" ;;
    1) one_line && said 'not enough memory' && [ ! -e "${target}b" ] ;;
    *) return 1 ;;
  esac && no_strays
}
for kilobytes in 16000 32000 48000 64000 128000; do
  report "standard mode, $kilobytes KiB of address space" standard_little_memory "$kilobytes"
done

standard_shrinking() {
  new_tree
  cp "$scratch/engine64.pdb" "$scratch/changing.pdb"
  "$program" --standard "$scratch/changing.pdb" "$tree" >/dev/null 2>"$scratch/err" &
  truncate -s $((RANDOM * 3)) "$scratch/changing.pdb"
  wait $! 2>/dev/null
  [ $? -le 1 ]
}
for round in $(seq 10); do
  report "standard mode, PDB that shrinks, $round" standard_shrinking
done

odd_things() {
  new_tree
  rm "$target" && mkdir "$target" || return 1
  convert "$scratch/new.sym" "$tree"
  said 'failed to rename: 21' && no_strays || return 1
  rmdir "$target" && echo precious >"$scratch/elsewhere" && ln -s "$scratch/elsewhere" "$target"
  : >"${target}AbCdEf"
  convert "$scratch/new.sym" "$tree"
  target_is new.sym && [ ! -L "$target" ] && grep -q precious "$scratch/elsewhere" && [ -e "${target}AbCdEf" ]
}
report "a folder, a link, a stale file in the target's place" odd_things

# Links in place of directories of the tree: dangling, cyclic, or to a directory (which is used).
odd_links() {
  local folder=$tree/engine64.pdb
  rm -rf "$tree" && mkdir "$tree" "$scratch/folder" && ln -s nowhere "$folder" || return 1
  convert "$scratch/new.sym" "$tree"
  said 'failed to create symbol file path: engine64.pdb/' || return 1
  ln -sfn engine64.pdb "$folder"
  convert "$scratch/new.sym" "$tree"
  said 'failed to create symbol file path: engine64.pdb/' || return 1
  ln -sfn "$scratch/folder" "$folder"
  convert "$scratch/new.sym" "$tree"
  target_is new.sym && no_strays
}
report "links in the place of folders" odd_links

exit $((failures > 0))
