# Completions of vrox and vrox-check for bash.
_vrox() {
  local current=$2 previous=$3
  COMPREPLY=()
  case ${1##*/}:$previous in
    vrox:-[cp]) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    vrox:-u) mapfile -t COMPREPLY < <(compgen -W "$(getent passwd | cut -d: -f3)" -- "$current") ;;
    vrox:-w) mapfile -t COMPREPLY < <(compgen -W "1 2 $(nproc)" -- "$current") ;;
    vrox:*) mapfile -t COMPREPLY < <(compgen -W "-c -d -h -k -p -r -u -v -w" -- "$current") ;;
    vrox-check:*)
      if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "-h --help -k --keys -q --quiet -r --resolve" -- "$current")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
}
complete -o filenames -F _vrox vrox vrox-check
