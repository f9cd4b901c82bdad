# Completion of korvo for bash. The program itself knows what may follow, keys and services of the running broker included.

_korvo() {
  local cur cword
  local -a words found
  if declare -F _get_comp_words_by_ref >/dev/null; then
    # Keys may have these characters in them.
    _get_comp_words_by_ref -n := cur words cword
  else
    cur=${COMP_WORDS[COMP_CWORD]} cword=$COMP_CWORD words=("${COMP_WORDS[@]}")
  fi
  # As it is typed, with what quotes it: the program is asked without.
  local begun=${cur#[\"\']}
  begun=${begun//\\/}
  mapfile -t found < <("${words[0]/#\~/$HOME}" complete -- "${words[@]:1:cword-1}" "$begun" 2>/dev/null)
  COMPREPLY=()
  if ((${#found[@]} == 0)); then
    compopt -o default
    return
  fi
  local candidate
  for candidate in "${found[@]}"; do
    if [[ $cur == [\"\']* ]]; then
      COMPREPLY+=("${cur:0:1}$candidate")
    else
      COMPREPLY+=("$(printf %q "$candidate")")
    fi
  done
  if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$cur"; fi
}

complete -F _korvo korvo
