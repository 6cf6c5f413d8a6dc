# bench/lib.sh: shell functions shared by the benchmark scripts. A script sources it once it has
# changed to the repository's root ("cd "$(dirname "$0")/.." && . bench/lib.sh").

# bench_parse_args SCRIPT NAME... -- ARG...
# Reads the options "--NAME VALUE" of the script SCRIPT from ARG... into the shell variables of
# the same names (the script sets their defaults first). -h/--help prints the opening comment
# of bench/SCRIPT (its file name; $0 will do) and exits 0; an unknown option, or one without
# its value, stops the script with a message and exit status 2.
bench_parse_args() {
  local script=$1 me name n
  local known=()
  shift
  while [ $# -gt 0 ] && [ "$1" != -- ]; do known+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  me=$(basename "$script")
  while [ $# -gt 0 ]; do
    if [ "$1" = -h ] || [ "$1" = --help ]; then
      awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "bench/$me"
      exit 0
    fi
    name=
    for n in "${known[@]}"; do [ "$1" = "--$n" ] && name=$n; done
    if [ -z "$name" ]; then echo "$me: unknown argument $1" >&2; exit 2; fi
    if [ $# -lt 2 ]; then echo "$me: $1 needs a value" >&2; exit 2; fi
    printf -v "$name" '%s' "$2"
    shift 2
  done
}
