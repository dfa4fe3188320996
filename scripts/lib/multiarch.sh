# Sourced by the packaging scripts. Packages marked Multi-Arch: same (the C
# and C++ runtime, the kernel headers) install for two architectures only
# at one and the same version, which both indexes must offer.

# The versions of package $1 that the index offers for architecture $2.
offered_versions() {
  apt-cache show "$1:$2" 2>/dev/null | sed -n 's/^Version: //p'
}

# Prints "P:A=V" for package $1 and each architecture after it, V the
# highest version offered for all of them; fails when there is none.
same_version() {
  local package=$1 arch common
  shift
  common=$(offered_versions "$package" "$1" | sort -u)
  for arch in "${@:2}"; do
    common=$(comm -12 <(echo "$common") \
                      <(offered_versions "$package" "$arch" | sort -u))
  done
  common=$(echo "$common" | sed '/^$/d' | sort -V | tail -n 1)
  if [ -z "$common" ]; then
    echo "no version of $package is offered for all of: $*" >&2
    return 1
  fi
  for arch in "$@"; do printf '%s:%s=%s\n' "$package" "$arch" "$common"; done
}
