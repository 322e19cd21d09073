# Completion for arspinfo(8) in bash. Requires only bash 4.
# shellcheck shell=bash

_arspinfo() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local option candidates='' columns='MAILNAME OWNER SUBJECT TYPE CHARSET TRIGGER FREQ LIMIT FORWARD REPLYTO SIZE
    ATTACHMENTS REPLIES'
  COMPREPLY=()

  if ((COMP_CWORD == 1)) && [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--help' -- "$current")
    return
  fi
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W 'list show check export' -- "$current")
    return
  fi
  # bash splits --option=value at the equals sign.
  if [[ $current == = ]]; then
    current=''
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  case $previous in
    --output | -o)
      mapfile -t COMPREPLY < <(compgen -W "$columns" -- "$current")
      return
      ;;
    --domain) return ;;
  esac
  if [[ $command == export && $current != -* ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    return
  fi

  case $command in
    list) candidates='--domain --output --json --raw --noheadings --help' ;;
    show) candidates='--json --body --help' ;;
    check) candidates='--json --help' ;;
    export) candidates='--domain --help' ;;
  esac
  for option in $candidates; do
    [[ " ${COMP_WORDS[*]:1:COMP_CWORD-1} " == *" $option "* ]] || COMPREPLY+=("$option")
  done
  mapfile -t COMPREPLY < <(compgen -W "${COMPREPLY[*]}" -- "$current")
}

complete -F _arspinfo arspinfo
