# bash completion for lumvane

_lumvane() {
  local current="${COMP_WORDS[COMP_CWORD]}" previous="${COMP_WORDS[COMP_CWORD - 1]}"
  case "$previous" in
    -i | --input | -o | --output)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    -w | --weights)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    -m | --model)
      mapfile -t COMPREPLY < <(compgen -W "1 2" -- "$current")
      return
      ;;
    -s | --stride | --shadows-clipping | --target-background)
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "-i --input -o --output -w --weights -s --stride -m --model --linear
    --shadows-clipping --target-background -q --quiet --machine-info --check-updates --machine-progress
    -h --help --version" -- "$current")
}

complete -F _lumvane lumvane
