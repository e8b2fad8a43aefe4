# Bash completion for mirelsnap(1).

# Mounted block devices, and their mount points.
_mirelsnap_devices() {
  findmnt --noheadings --raw --real --output SOURCE 2>/dev/null | grep '^/dev/' | sort -u
}
_mirelsnap_mount_points() {
  findmnt --noheadings --raw --real --output SOURCE,TARGET 2>/dev/null | sed -n 's#^/dev/[^ ]* ##p' | sort -u
}

# Completes with the lines on standard input. Names may contain blanks, which findmnt prints as \x20.
_mirelsnap_reply() {
  local word
  while IFS= read -r word; do
    printf -v word '%b' "$word"
    [[ $word == "$cur"* ]] || continue
    printf -v word '%q' "$word"
    COMPREPLY+=("$word")
  done
}

_mirelsnap_words() { COMPREPLY=($(compgen -W "$1" -- "$cur")); }
_mirelsnap_volumes() { _mirelsnap_reply < <(_mirelsnap_devices; _mirelsnap_mount_points); }
_mirelsnap_folders() { compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$cur"); }
_mirelsnap_files() { compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$cur"); }

_mirelsnap() {
  local verbs='run shell status doctor plan reconcile freeze thaw changes stop-tracking log-level dump-state'
  local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} verb= i
  COMPREPLY=()
  # Readline treats "=" and ":" as words of their own: --volume=/dev/sdb1, DEVICE:MOUNTPOINT.
  if [[ $cur == [=:] ]]; then
    previous=$cur cur=
  fi
  if [[ $previous == = ]]; then
    i=$((COMP_CWORD - 1))
    [[ ${COMP_WORDS[i]} == = ]] && i=$((i - 1))
    previous=${COMP_WORDS[i]}
  fi

  for ((i = 1; i < COMP_CWORD; i++)); do
    # A command with its own arguments follows "--".
    if [[ ${COMP_WORDS[i]} == -- ]]; then
      if declare -F _command_offset >/dev/null; then
        _command_offset $((i + 1))
      else
        mapfile -t COMPREPLY < <(compgen -c -- "$cur")
      fi
      return
    fi
    [[ -z $verb && ${COMP_WORDS[i]} != -* ]] && verb=${COMP_WORDS[i]}
  done

  case $previous in
    --volume) _mirelsnap_volumes; return ;;
    --bind | --reloc-mount | :) _mirelsnap_reply < <(_mirelsnap_mount_points); return ;;
    --base) _mirelsnap_folders; return ;;
    --reloc-size) return ;;
  esac

  if [[ -z $verb ]]; then
    _mirelsnap_words "$verbs --help --version"
    return
  fi
  if [[ $cur == -* ]]; then
    case $verb in
      run) _mirelsnap_words '--volume --base --bind --reloc-mount --reloc-size --json --verbose --help --' ;;
      shell) _mirelsnap_words '--volume --base --bind --reloc-mount --reloc-size --json --verbose --help' ;;
      plan) _mirelsnap_words '--reloc-mount --reloc-size --json --help' ;;
      reconcile) _mirelsnap_words '--base --json --help' ;;
      changes) _mirelsnap_words '--map --json --help' ;;
      *) _mirelsnap_words '--json --help' ;;
    esac
    return
  fi
  case $verb in
    doctor | plan | freeze | thaw | changes | stop-tracking) _mirelsnap_volumes ;;
    log-level) _mirelsnap_words '0 1 2 3 4 5 6 7 emerg alert crit err warning notice info debug' ;;
    dump-state) _mirelsnap_files ;;
  esac
}

complete -F _mirelsnap mirelsnap
