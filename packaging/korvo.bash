# Completion of korvo for bash. The program itself knows what may follow, keys and services of the running broker included.

# A word of the command line as the program gets it, in `plain`: without what quotes it.
_korvo_unquote() {
  plain=$1
  case $plain in
    \'*)
      plain=${plain#\'} plain=${plain%\'}
      plain=${plain//"'\\''"/"'"}
      ;;
    \"*)
      plain=${plain#\"} plain=${plain%\"}
      plain=${plain//"\"'!'\""/!}
      local mark
      for mark in \" \$ \` \\; do plain=${plain//"\\$mark"/"$mark"}; done
      ;;
    *)
      local pair=$'\1'
      plain=${plain//\\\\/"$pair"}
      plain=${plain//\\/}
      plain=${plain//"$pair"/\\}
      ;;
  esac
}

# A candidate as it may stand on the command line, in `quoted`: no shell may find a command in a name. What quotes the
# word already, $2, quotes it on; readline closes it.
_korvo_quote() {
  quoted=$1
  case $2 in
    \') quoted="'${quoted//\'/"'\\''"}" ;;
    \")
      local mark
      for mark in \\ \" \$ \`; do quoted=${quoted//"$mark"/"\\$mark"}; done
      # The history would be searched for what follows it, with a backslash before it too.
      quoted="\"${quoted//!/"\"'!'\""}"
      ;;
    *) printf -v quoted %q "$quoted" ;;
  esac
}

_korvo() {
  local cur cword plain quoted word
  local -a words found asked=()
  if declare -F _get_comp_words_by_ref >/dev/null; then
    # Keys may have these characters in them.
    _get_comp_words_by_ref -n := cur words cword
  else
    cur=${COMP_WORDS[COMP_CWORD]} cword=$COMP_CWORD words=("${COMP_WORDS[@]}")
  fi
  for word in "${words[@]:1:cword-1}" "$cur"; do
    _korvo_unquote "$word"
    asked+=("$plain")
  done
  mapfile -t found < <("${words[0]/#\~/$HOME}" complete -- "${asked[@]}" 2>/dev/null)
  COMPREPLY=()
  if ((${#found[@]} == 0)); then
    compopt -o default
    return
  fi
  for word in "${found[@]}"; do
    _korvo_quote "$word" "${cur:0:1}"
    COMPREPLY+=("$quoted")
  done
  if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$cur"; fi
}

complete -F _korvo korvo
