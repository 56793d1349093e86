# Completion of webapi-host in bash. It asks the program, so that it knows what the installed one knows.
_webapi_host() {
  local word=${COMP_WORDS[COMP_CWORD]} words=
  if [ "$COMP_CWORD" -eq 1 ]; then
    words="--help --version $("$1" --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z][a-z-]*\) .*/\1/p')"
  elif [[ $word == -* ]]; then
    words=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]*')
  else
    words=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null |
      awk -F '[ {}]+' -v option="${COMP_WORDS[COMP_CWORD - 1]}" '$2 == option && /[{]/ { gsub(",", " ", $4); print $4 }')
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o default -F _webapi_host webapi-host
