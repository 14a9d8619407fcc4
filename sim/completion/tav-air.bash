# bash completion of tav-air: its options, and behind -- whatever the program has.
_tav_air() {
  local i
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [ "${COMP_WORDS[i]}" = -- ]; then
      _command_offset $((i + 1))
      return
    fi
  done
  COMPREPLY=($(compgen -W "$(tav-air --help | grep -o '^  --[a-z-]*')" -- "$2"))
}
complete -F _tav_air tav-air
