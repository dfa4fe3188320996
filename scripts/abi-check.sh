#!/bin/bash
# Checks the exported dynamic symbols of the shared library against the
# recorded list abi/qel_util.symbols (demangled, one a line).
#   scripts/abi-check.sh LIBRARY            check
#   scripts/abi-check.sh LIBRARY --update   record LIBRARY's names as the list
# Fails when a recorded name is no longer exported (services linked against
# it would not load) or when the library exports a name that the public
# headers include/qel_util/*.h do not declare (an internal helper that lost
# its hidden visibility). Names that are new and declared are shown; record
# them with --update. Instantiations of the standard library's templates
# (weak) belong to every object that uses them and are not listed.
# NM names the nm to use (a cross build's own).
set -euo pipefail
library=${1:?shared library}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
list=$source_dir/abi/qel_util.symbols
nm=${NM:-nm}
export LC_ALL=C

# Weak symbols that mention the standard library and are not the library's
# own are template instantiations; the linker's own markers and the
# sanitizers' (one-definition indicators of exported data, weak descriptors of
# function types) are no names.
exported=$("$nm" -D --defined-only -C "$library" | cut -d' ' -f2- | awk '
  { type = $1; name = substr($0, length(type) + 2)
    own = name
    sub(/^(typeinfo name|typeinfo|vtable|VTT|guard variable) for /, "", own)
    if (type ~ /^[WVu]$/ && own !~ /^qel_util::/ &&
        name ~ /(std|__gnu_cxx)::/) next
    if (name ~ /^(_init|_fini|__bss_start|_edata|_end)$/) next
    # Descriptors of function types, made for -fsanitize=function (clang).
    if (type ~ /^[WVu]$/ && name ~ /^typeinfo (name )?for / && own ~ /\)$/ &&
        own !~ /^qel_util::/) next
    if (name ~ /^_+(odr_asan|asan|tsan|ubsan|sancov)/) next
    print name }' | sort -u)

if [ "${2:-}" = "--update" ]; then
  printf '%s\n' "$exported" > "$list"
  echo "abi-check: recorded $(wc -l < "$list") names in $list"
  exit 0
fi

status=0
# A name is declared when each part of its qualified name (the class, the
# nested namespace, the member) is a word of a public header.
headers=("$source_dir"/include/qel_util/*.h)
undeclared=()
while IFS= read -r name; do
  [ -n "$name" ] || continue
  entity=${name#typeinfo name for }
  entity=${entity#typeinfo for }
  entity=${entity#vtable for }
  entity=${entity#VTT for }
  entity=${entity//\[abi:cxx11\]/}
  entity=${entity%%(*}
  if [[ $entity != qel_util::* ]]; then
    undeclared+=("$name")
    continue
  fi
  IFS=':' read -r -a parts <<< "${entity//::/:}"
  for part in "${parts[@]:1}"; do
    part=${part#\~}
    part=${part%%<*}
    [[ $part == operator* ]] && continue
    if ! grep -qw -- "$part" "${headers[@]}"; then
      undeclared+=("$name")
      break
    fi
  done
done <<< "$exported"
if [ ${#undeclared[@]} -gt 0 ]; then
  echo "abi-check: exported but not declared in include/qel_util:" >&2
  printf '  %s\n' "${undeclared[@]}" >&2
  status=1
fi

missing=$(comm -23 "$list" <(printf '%s\n' "$exported"))
if [ -n "$missing" ]; then
  echo "abi-check: recorded but no longer exported:" >&2
  printf '%s\n' "$missing" | sed 's/^/  /' >&2
  status=1
fi
added=$(comm -13 "$list" <(printf '%s\n' "$exported"))
if [ -n "$added" ]; then
  echo "abi-check: new exported names (record them with --update):"
  printf '%s\n' "$added" | sed 's/^/  /'
fi
[ $status -ne 0 ] || echo "abi-check: $(wc -l <<< "$exported") names, all declared and recorded"
exit $status
