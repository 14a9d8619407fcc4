# shellcheck shell=bash
# bash completion of tav-air: its options and their values, and behind -- whatever the program has.
_tav_air() {
  local i offers='' named='' run=''
  [[ ${COMP_WORDS[1]} != @(run|watch) ]] || [ "$COMP_CWORD" -eq 1 ] || run=${COMP_WORDS[1]}
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --)
        [ -n "$run" ] || ! declare -F _command_offset >/dev/null || _command_offset $((i + 1)) # of bash-completion
        return
        ;;
      --address | --air | --card | --device | --faults | --file | --libraries | --port | --python | --record) ((++i)) ;;
      --radio | --sdp | --service | --speed | --state | --until) ((++i)) ;;
      -*) ;;
      *) named=yes ;;
    esac
  done
  if ((i > COMP_CWORD)); then # the value of an option
    case $3 in
      --speed) offers='1 20 100' ;;
      --state) offers='down absent hidden nameless no-sdp' ;;
      --file | --libraries | --record) mapfile -t COMPREPLY < <(compgen -f -- "$2") && return ;;
    esac
  elif [ -n "$run" ]; then
    offers=$(tav-air "$run" --help | grep -o '^  --[a-z-]*')
    [[ $2 == -* || $run == watch ]] || mapfile -t COMPREPLY < <(compgen -f -- "$2") # a file of such words
    [[ $2 == -* ]] || return
  elif [ -n "$named" ]; then
    offers=--
  else
    offers="run watch $(tav-air --help | grep -o '^  --[a-z-]*')"
  fi
  mapfile -t COMPREPLY < <(compgen -W "$offers" -- "$2")
}
complete -F _tav_air tav-air
