# Completion of motorctl for bash.                                              -*- shell-script -*-

_motorctl_takes_value() {
  case $1 in
    --vehicle | --interface | --make | --counts-per-revolution | --eds | --from | --to | --period | --rpm | --rpm2 | \
      --seconds | --limit | --fresh-ms | --ramp | --csv | --svg | --config | --directory | --after | --memory-mb | \
      --keep | --limit-mb | --file-mb | --files-mb | --timeout | --html | --bit-rate | --output) return 0 ;;
  esac
  return 1
}

_motorctl_interfaces() {
  local path
  for path in /sys/class/net/*; do
    # 280 is the hardware type of CAN in linux/if_arp.h.
    [[ $(cat "$path/type" 2>/dev/null) == 280 ]] && echo "${path##*/}"
  done
}

# The command line that begins at word $1.
_motorctl_guarded() {
  if declare -F _command_offset >/dev/null; then
    _command_offset "$1"
  elif ((COMP_CWORD == $1)); then
    mapfile -t COMPREPLY < <(compgen -c -- "${COMP_WORDS[COMP_CWORD]}")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
  fi
}

_motorctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local options='--vehicle --interface --make --counts-per-revolution --eds --json --verbose --help'
  local words='' files=false command='' nested='' position=0 i

  for ((i = 1; i < COMP_CWORD; i++)); do
    # What is guarded completes by itself.
    if [[ $command == guard && ${COMP_WORDS[i]} == -- ]]; then
      _motorctl_guarded $((i + 1))
      return
    fi
    if _motorctl_takes_value "${COMP_WORDS[i]}"; then
      ((i++))
    elif [[ ${COMP_WORDS[i]} != -* ]]; then
      if [[ -z $command ]]; then
        command=${COMP_WORDS[i]}
      else
        ((position++)) || nested=${COMP_WORDS[i]}
      fi
    fi
  done

  case $command in
    '')
      options+=' --version'
      words='doctor scan info sdo config bring-up jog stop guard monitor record report explain decode vehicle'
      ;;
    doctor | info) options+=' --timeout' ;;
    scan) options+=' --from --to --timeout' ;;
    bring-up) options+=' --period --timeout' ;;
    jog) options+=' --rpm --rpm2 --seconds --ramp --period --csv --svg --yes --allow-fast --timeout' ;;
    stop) options+=' --limit' ;;
    guard) options+=' --fresh-ms --prove --rpm --yes' ;;
    monitor) options+=' --once --seconds --poll --config --timeout' ;;
    record) options+=' --directory --seconds --after --memory-mb --keep --limit-mb --continuous --file-mb --files-mb --now' ;;
    report) files=true options+=' --html --csv --bit-rate' ;;
    sdo)
      options+=' --timeout'
      if ((position == 0)); then
        words='read write'
      elif ((position == 4)); then
        words='u8 i8 u16 i16 u32 i32 hex str'
      fi
      [[ $nested != write ]] || options+=' --yes --force'
      ;;
    config)
      options+=' --timeout'
      if ((position == 0)); then
        words='save diff restore'
      else
        files=true
      fi
      case $nested in
        save) options+=' --output --dcf --partial' files=false ;;
        diff) options+=' --volatile' ;;
        restore) options+=' --yes --force --save --bus-settings' ;;
      esac
      ;;
    decode) files=true ;;
    vehicle) if ((position == 0)); then words='check'; else files=true; fi ;;
  esac

  if _motorctl_takes_value "$previous"; then
    words='' files=false
    case $previous in
      --interface) words=$(_motorctl_interfaces) ;;
      --make) words=$("${COMP_WORDS[0]}" --list-makes 2>/dev/null) ;;
      --vehicle | --eds | --csv | --svg | --html | --config | --directory | --output) files=true ;;
    esac
  elif [[ $current == -* ]]; then
    words=$options files=false
  fi

  if $files; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    compopt -o filenames 2>/dev/null
  else
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  fi
}

complete -F _motorctl motorctl
