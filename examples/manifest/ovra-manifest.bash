# Completion of ovra-manifest for bash.
_ovra_manifest() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} options
  options='-j --jobs --log -h --help'
  compopt -o filenames 2>/dev/null
  case ${COMP_WORDS[1]} in
    create) options+=' --verbose --version -o --first' ;;
    check) options+=' --verbose --version -q --quiet --status --strict --ignore-missing --new' ;;
    watch) options+=' --every --rounds --status --new --listed-only --rate --eager --max-bytes --keep' ;;
  esac
  [ "${COMP_WORDS[1]} $before" != 'watch --status' ] || before=-o
  case $before in
    -j | --jobs | --every | --rounds | --rate | --max-bytes | --keep) return ;;
    -o | --first | --log) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    --new) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    *)
      if [ "$COMP_CWORD" -eq 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W 'create check watch -h --help --version' -- "$word")
      elif [[ $word = -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
      elif [ "${COMP_WORDS[1]}" = create ]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
      fi
      ;;
  esac
}
complete -F _ovra_manifest ovra-manifest
