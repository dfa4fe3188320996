# Progress for the project's scripts: one line for each step, the tools' own
# output kept in a log that is shown only when the step fails. Colour only
# when standard output is a terminal. Source it; it defines note, step and
# quiet_install.

if [ -t 1 ]; then
  _qel_on=$'\e[1;34m' _qel_bad=$'\e[1;31m' _qel_off=$'\e[0m'
else
  _qel_on="" _qel_bad="" _qel_off=""
fi

# note TEXT: one progress line.
note() { printf '%s==>%s %s\n' "$_qel_on" "$_qel_off" "$*"; }

# step TEXT COMMAND...: runs COMMAND quietly under one progress line; on
# failure prints its output and returns its status.
step() {
  local text=$1 log status=0
  shift
  note "$text"
  log=$(mktemp "${TMPDIR:-/tmp}/qel-step.XXXXXX")
  "$@" >"$log" 2>&1 </dev/null || status=$?
  if [ "$status" -ne 0 ]; then
    printf '%sfailed (%d):%s %s\n' "$_qel_bad" "$status" "$_qel_off" "$text" >&2
    cat "$log" >&2
  fi
  rm -f "$log"
  return "$status"
}

# Package management needs root; others go through sudo.
as_root=()
[ "$(id -u)" -eq 0 ] || as_root=(sudo)
export DEBIAN_FRONTEND=noninteractive
# Two scripts run side by side (a build beside a packaging check) wait for
# each other's apt rather than fail on its lock.
apt_wait=(-o DPkg::Lock::Timeout=900)

# update_lists: apt-get update. A failing index (one mirror in the middle of
# a sync, say) does not stop the run: an install that follows fails if a
# package really cannot be had.
update_lists() {
  step "updating the package lists" "${as_root[@]}" apt-get "${apt_wait[@]}" update ||
    note "some package lists could not be updated; going on with those at hand"
}

# quiet_install PACKAGE...: installs the Debian packages not yet installed.
quiet_install() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" ||
      missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  update_lists
  step "installing ${#missing[@]} packages: ${missing[*]}" \
    "${as_root[@]}" apt-get "${apt_wait[@]}" install -y --no-install-recommends "${missing[@]}"
}

# build_tree SOURCE DIR [CMAKE-ARGUMENT...]: configures and builds, one line
# for each; on a terminal the line counts the build's percentage.
build_tree() {
  local source=$1 dir=$2
  shift 2
  step "configuring $dir" cmake -S "$source" -B "$dir" "$@"
  if [ -t 1 ]; then
    note "building $dir"
    local log status
    log=$(mktemp "${TMPDIR:-/tmp}/qel-step.XXXXXX")
    { cmake --build "$dir" -j "$(nproc)" </dev/null 2>&1 &&
        echo 0 >"$log.status" || echo $? >"$log.status"; } | tee "$log" |
      grep --line-buffered -o '^\[ *[0-9]*%\]' |
      while read -r percent; do printf '\r    %s' "$percent"; done || true
    status=$(cat "$log.status")
    printf '\r'
    [ "$status" -eq 0 ] || cat "$log" >&2
    rm -f "$log" "$log.status"
    return "$status"
  else
    step "building $dir" cmake --build "$dir" -j "$(nproc)"
  fi
}

# heading TEXT: a narrated section of a demonstration, bold on a terminal.
heading() {
  if [ -n "$_qel_on" ]; then printf '\n\e[1m== %s\e[0m\n' "$*"; else printf '\n== %s\n' "$*"; fi
}
