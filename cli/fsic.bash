# bash completion for fsic: commands, each command's options, and file names where an
# option or operand takes a file (the option's value as its own word: --db FILE).

_fsic() {
  local cur=${COMP_WORDS[COMP_CWORD]}
  local prev=
  ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
  local commands="volumes init check update compare show keygen"
  local common="--progress --no-progress -q --help"

  if ((COMP_CWORD == 1)); then
    COMPREPLY=($(compgen -W "$commands --version --help" -- "$cur"))
    return
  fi

  case $prev in
    --policy | --db | --key)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      compopt -o filenames 2>/dev/null
      return
      ;;
    --accept)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      compopt -o filenames 2>/dev/null
      return
      ;;
    --volume)
      return
      ;;
  esac

  local options
  case ${COMP_WORDS[1]} in
    volumes) options="--json --all" ;;
    init) options="--policy --db --key --no-key --force" ;;
    check) options="--db --key --no-key --json" ;;
    update) options="--db --key --no-key --accept --volume --json" ;;
    compare) options="--key --no-key --json" ;;
    show) options="--db --key --no-key --json" ;;
    keygen) options="--key" ;;
    *) return ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options $common" -- "$cur"))
  elif [[ ${COMP_WORDS[1]} == compare ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    compopt -o filenames 2>/dev/null
  fi
}
complete -F _fsic fsic
