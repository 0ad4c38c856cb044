# Completion of symforge's command line for bash.

_symforge() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} pattern='' i arguments=0

  local options=(-b -e -h -i -j -q -r -s -v --against --binary --check --files-from --help --identify --if-changed
    --image --jobs --max-memory --no-inlines --no-sandbox --no-sync --quiet --recursive --report --standard --sync
    --tree --version)

  # Arguments after the options that have been typed already.
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --against | --files-from | --image | --jobs | --max-memory | --report | --tree) ((++i)) ;;
      --check | --identify) pattern='*' ;;  # any number of files of any kind
      --*) ;;
      -*[ejs]) ((++i)) ;;
      -*) ;;
      *) ((++arguments)) ;;
    esac
  done

  case $previous in
    --against) pattern='*.@(exe|dll|pdb|EXE|DLL|PDB)' ;;
    --report) pattern='*' ;;
    --image) pattern='*.@(exe|dll|EXE|DLL)' ;;
    --files-from) pattern='*' ;;
    --tree) ;;
    --jobs | --max-memory | -[!-]*j | -j)
      COMPREPLY=()
      return
      ;;
    -[!-]*e | -e) pattern='*.@(exe|dll|EXE|DLL)' ;;
    -[!-]*s | -s) ;;
    *)
      if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$word")
        return
      fi
      # With -s all arguments are inputs.
      [[ " ${COMP_WORDS[*]}" == *" -s"* || " ${COMP_WORDS[*]}" == *" --tree"* ]] && arguments=0
      ((arguments)) || : "${pattern:=*.@(pdb|PDB|sym|symb)}"
      ;;
  esac

  compopt -o filenames 2>/dev/null
  # Folders always; files only where the command takes one.
  mapfile -t COMPREPLY < <(compgen -d -- "$word")
  [[ -z $pattern ]] && return
  local file extended
  extended=$(shopt -p extglob)
  shopt -s extglob
  while IFS= read -r file; do
    # shellcheck disable=SC2053  # a pattern
    [[ ! -d $file && $file == $pattern ]] && COMPREPLY+=("$file")
  done < <(compgen -f -- "$word")
  $extended
}

complete -F _symforge symforge
