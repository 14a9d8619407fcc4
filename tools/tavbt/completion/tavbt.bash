# shellcheck shell=bash
# bash completion of tavbt, which knows its verbs, options and devices itself; files where it offers nothing.
_tavbt() {
  local words=("${COMP_WORDS[@]:1:COMP_CWORD}") candidate
  words=("${words[@]//\\/}") # "Robot\ 2" as it is meant
  COMPREPLY=()
  while IFS= read -r candidate; do
    COMPREPLY+=("$(printf %q "$candidate")")
  done < <(tavbt complete -- "${words[@]}" 2>/dev/null)
}
complete -o default -F _tavbt tavbt
