# shellcheck shell=bash
# bash completion of tav-session: its options and captures.
_tav_session() {
  local i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    [ "${COMP_WORDS[i]}" != -- ] || {
      ! declare -F _command_offset >/dev/null || _command_offset $((i + 1)) # of bash-completion
      return
    }
  done
  case $3 in
    --replay | --title | --to) return ;;
  esac
  if [[ $2 == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "-- $(tav-session --help | grep -o '^  --[a-z-]*')" -- "$2")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$2")
  fi
}
complete -o filenames -F _tav_session tav-session
