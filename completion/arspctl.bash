# Completion for arspctl(8) in bash. Requires only bash 4.
# shellcheck shell=bash

# Prints the options of a command: _arspctl_options COMMAND
_arspctl_options() {
  case $1 in
    --set-resp)
      echo --mailname --real-owner --key-str --key-where --subj --reply-to --forward-to --content-type --charset \
        --ans-freq --ans-limit
      ;;
    --del-resp) echo --mailname ;;
    --add-attach) echo --mailname --filename --source ;;
    --del-attach) echo --mailname --filename ;;
  esac
}

_arspctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local word option command='' given=' ' candidates='' index
  COMPREPLY=()

  # bash splits --option=value at the equals sign.
  if [[ $current == = ]]; then
    current=''
  elif [[ $previous == = ]] && ((COMP_CWORD > 1)); then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  case $previous in
    --content-type)
      mapfile -t COMPREPLY < <(compgen -W 'text/plain text/html plain html' -- "$current")
      return
      ;;
    --key-where)
      mapfile -t COMPREPLY < <(compgen -W 'no subj body' -- "$current")
      return
      ;;
    --source)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --mailname | --real-owner | --filename | --key-str | --subj | --reply-to | --forward-to | --charset | --ans-freq | --ans-limit)
      return
      ;;
  esac

  for ((index = 1; index < ${#COMP_WORDS[@]}; index++)); do
    ((index != COMP_CWORD)) || continue
    word=${COMP_WORDS[index]}
    given+="$word "
    case $word in
      --init-db | --set-resp | --del-resp | --add-attach | --del-attach | --set-extra-headers | --help | -h)
        command=${command:-$word}
        ;;
    esac
  done

  if [[ -z $command ]]; then
    candidates='--init-db --set-resp --del-resp --add-attach --del-attach --set-extra-headers --help'
  else
    for option in $(_arspctl_options "$command"); do
      [[ $given == *" $option "* ]] || candidates+=" $option"
    done
  fi
  mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
}

complete -F _arspctl arspctl
