# Completion of widgetctl for bash. Loaded by bash-completion at the first Tab.

_widgetctl() {
  local continuation
  COMPREPLY=()
  while IFS= read -r continuation; do
    COMPREPLY+=("$2$continuation")
  done < <("$1" complete "${COMP_LINE:0:COMP_POINT}" 2>/dev/null)
  if [ ${#COMPREPLY[@]} -eq 0 ]; then
    compopt -o default # A file.
    return
  fi
  compopt -o nospace
  # Inside quotes, bash takes a single one for the end of the word.
  if [ ${#COMPREPLY[@]} -eq 1 ] && [[ ${COMP_WORDS[COMP_CWORD]} = [\'\"]* ]]; then
    COMPREPLY+=("${COMPREPLY[0]} ")
  fi
}

complete -F _widgetctl widgetctl
