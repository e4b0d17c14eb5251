# SPDX-License-Identifier: MIT
# Completion of runeflow for bash. The command itself says what may stand at the cursor.

_runeflow() {
  local line=${COMP_LINE:0:COMP_POINT} current=${COMP_WORDS[COMP_CWORD]} word kind candidate words=()
  # bash has cut the words at colons and equals signs, which belong to conditions and options.
  read -ra words <<<"$line"
  [[ $line == *[[:space:]] ]] && words+=("")
  word=${words[-1]}
  if [[ $current == [\'\"]* ]]; then  # a query whose quote is still open
    word=${word#[\'\"]}
    words[-1]=$word
    # Inside a word, bash would take a quote of the query language for its own.
    [[ $word != *\"* || $current == \'* ]] || return
  fi
  COMPREPLY=()
  {
    read -r kind
    while IFS=$'\t' read -r candidate _; do
      [[ -n $candidate ]] && COMPREPLY+=("$candidate")
    done
  } < <("${words[0]}" complete -- "${words[@]:1}" 2>/dev/null)
  if [[ $kind == files ]]; then
    compopt -o filenames 2>/dev/null
    while IFS= read -r candidate; do COMPREPLY+=("$candidate"); done < <(compgen -f -- "$word")
    return
  fi
  local kept added="" i
  case $current in
    [\'\"]*) # bash replaces all that stands behind the quote
      kept=""
      added=${current:1}
      added=${added%"$word"}
      ;;
    : | =) kept=$word ;; # bash keeps what stands before its last colon or equals sign
    *) kept=${word%"$current"} ;;
  esac
  for i in "${!COMPREPLY[@]}"; do
    candidate=${COMPREPLY[i]#"$kept"}
    # The quotes of the query language, and the blanks between them, must reach the command.
    case $current in
      \'*) ;;
      \"*) candidate=${candidate//\"/\\\"} ;;
      *) [[ $candidate != *\"* ]] || printf -v candidate %q "$candidate" ;;
    esac
    COMPREPLY[i]=$added$candidate
  done
  [[ ${#COMPREPLY[@]} == 1 && ${COMPREPLY[0]} == *[:=] ]] && compopt -o nospace 2>/dev/null
}
complete -F _runeflow runeflow
