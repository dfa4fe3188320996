# The code blocks of a Markdown file that the snippet test runs: ```cpp and
# ```sh fences at the start of a line. Other fences are skipped whole.
#   awk -v list=1 -f extract.awk FILE        one line per block:
#                                            KIND N LINE RUN-BY
#   awk -v kind=KIND -v n=N -f extract.awk FILE   the N-th KIND block's text
# N counts the blocks of one kind from 1, LINE is the opening fence's line,
# RUN-BY the PATH of a "<!-- run by: PATH -->" line right above the fence,
# or "-".
/^```/ {
  if (open) { open = 0; printing = 0; next }
  open = 1
  lang = substr($0, 4)
  sub(/[^A-Za-z0-9_+-].*/, "", lang)
  if (lang == "cpp" || lang == "sh") {
    count[lang]++
    runby = "-"
    if (prev ~ /^<!-- run by: [^ ]+ -->$/) {
      runby = prev
      sub(/^<!-- run by: /, "", runby)
      sub(/ -->$/, "", runby)
    }
    if (list) print lang, count[lang], NR, runby
    printing = (lang == kind && count[lang] == n)
  }
  next
}
printing { print }
{ prev = $0 }
