# Sourced by the tools, from the top of the sources: --help, and what to do about wrong arguments.

# print_help : the comment at the head of the tool that runs.
print_help() {
  sed -n '2,${/^#/!q; s/^# \{0,1\}//p}' "tools/${0##*/}"
}

# wrong_argument <what is wrong with it> : ends the tool.
wrong_argument() {
  printf '%s: %s\n\n' "tools/${0##*/}" "$1" >&2
  print_help >&2
  exit 2
}

# check_arguments <how many at most> <extended regular expression> <argument>...
# Answers --help. An argument that does not match as a whole is an error, and so is one too many.
check_arguments() {
  local most=$1 allowed=$2 argument
  shift 2
  for argument in "$@"; do
    case $argument in
      -h | --help)
        print_help
        exit 0
        ;;
    esac
  done
  [ $# -le "$most" ] || wrong_argument "too many arguments: $*"
  for argument in "$@"; do
    [[ $argument =~ ^($allowed)$ ]] || wrong_argument "not known: '$argument'"
  done
}
